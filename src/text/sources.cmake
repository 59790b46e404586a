# Sources of the text area.
list(APPEND ZORV_FOUNDATION_SOURCES
  ${CMAKE_CURRENT_LIST_DIR}/codecutils.cpp
  ${CMAKE_CURRENT_LIST_DIR}/numbertext.cpp
  ${CMAKE_CURRENT_LIST_DIR}/stringutils.cpp
)

# The integer parsers' loops are short and branchy: on x86 processors whose
# decoded-instruction cache passes over jumps that cross or end on a 32-byte
# boundary, where the linker happens to place them decided a third of their
# speed (measured: 8.5 against 11.4 ns a text for the same code). The
# assembler pads such jumps in this file.
if(CMAKE_SYSTEM_PROCESSOR MATCHES "^(x86_64|AMD64|i[3-6]86)$")
  if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
    set(ZORV_JUMP_PADDING "-Wa,-mbranches-within-32B-boundaries")
  elseif(CMAKE_CXX_COMPILER_ID MATCHES "Clang")
    set(ZORV_JUMP_PADDING "-mbranches-within-32B-boundaries")
  endif()
  if(ZORV_JUMP_PADDING)
    set_source_files_properties(${CMAKE_CURRENT_LIST_DIR}/numbertext.cpp PROPERTIES
      COMPILE_OPTIONS "${ZORV_JUMP_PADDING}")
  endif()
endif()
