# Sources of the crypto area.
list(APPEND ZORV_FOUNDATION_SOURCES
  ${CMAKE_CURRENT_LIST_DIR}/md5.cpp
  ${CMAKE_CURRENT_LIST_DIR}/sha1.cpp
  ${CMAKE_CURRENT_LIST_DIR}/sha1accel.cpp
  ${CMAKE_CURRENT_LIST_DIR}/sha1armv8.cpp
  ${CMAKE_CURRENT_LIST_DIR}/sha256.cpp
  ${CMAKE_CURRENT_LIST_DIR}/sha256accel.cpp
  ${CMAKE_CURRENT_LIST_DIR}/sha256armv8.cpp
  ${CMAKE_CURRENT_LIST_DIR}/sha256portable.cpp
)
# GCC keeps fewer register copies in the portable SHA-256 and SHA-1 rounds
# when it renames registers after allocation (on x86-64: about 2% and 3%
# fewer instructions, 1-2% and about 7% more throughput). MD5 gains nothing.
if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
  set_source_files_properties(${CMAKE_CURRENT_LIST_DIR}/sha256portable.cpp
    ${CMAKE_CURRENT_LIST_DIR}/sha1.cpp PROPERTIES
    COMPILE_OPTIONS "-frename-registers")
endif()
# The ARMv8 SHA transforms are built with the cryptographic extension
# enabled; it runs only where the kernel reports that extension.
if(CMAKE_SYSTEM_PROCESSOR MATCHES "^(arm|ARM)")
  set_source_files_properties(${CMAKE_CURRENT_LIST_DIR}/sha1armv8.cpp
    ${CMAKE_CURRENT_LIST_DIR}/sha256armv8.cpp PROPERTIES
    COMPILE_OPTIONS "-march=armv8-a;-mfpu=crypto-neon-fp-armv8")
elseif(CMAKE_SYSTEM_PROCESSOR MATCHES "^(aarch64|arm64|ARM64)")
  set_source_files_properties(${CMAKE_CURRENT_LIST_DIR}/sha1armv8.cpp
    ${CMAKE_CURRENT_LIST_DIR}/sha256armv8.cpp PROPERTIES
    COMPILE_OPTIONS "-march=armv8-a+crypto")
endif()
