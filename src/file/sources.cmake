# Sources of the file area.
list(APPEND ZORV_FOUNDATION_SOURCES
  ${CMAKE_CURRENT_LIST_DIR}/filecontents.cpp
  ${CMAKE_CURRENT_LIST_DIR}/folders.cpp
  ${CMAKE_CURRENT_LIST_DIR}/pathutils.cpp
)
