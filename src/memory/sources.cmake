# Sources of the memory area.
list(APPEND ZORV_FOUNDATION_SOURCES
  ${CMAKE_CURRENT_LIST_DIR}/buffer.cpp
  ${CMAKE_CURRENT_LIST_DIR}/memorybuffer.cpp
  ${CMAKE_CURRENT_LIST_DIR}/stringreader.cpp
  ${CMAKE_CURRENT_LIST_DIR}/stringwriter.cpp
)
