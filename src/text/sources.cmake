# Sources of the text area.
list(APPEND ZORV_FOUNDATION_SOURCES
  ${CMAKE_CURRENT_LIST_DIR}/codecutils.cpp
  ${CMAKE_CURRENT_LIST_DIR}/numbertext.cpp
  ${CMAKE_CURRENT_LIST_DIR}/stringutils.cpp
)
