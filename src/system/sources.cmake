# Sources of the system area.
list(APPEND ZORV_FOUNDATION_SOURCES
  # clocks, processors, libraries, console
  ${CMAKE_CURRENT_LIST_DIR}/systemutils.cpp
  ${CMAKE_CURRENT_LIST_DIR}/consoleutils.cpp
  ${CMAKE_CURRENT_LIST_DIR}/library.cpp

  # named file lock, process control
  ${CMAKE_CURRENT_LIST_DIR}/filedlock.cpp
  ${CMAKE_CURRENT_LIST_DIR}/process.cpp

)
