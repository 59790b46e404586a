# Sources of the time area.
list(APPEND ZORV_FOUNDATION_SOURCES
  ${CMAKE_CURRENT_LIST_DIR}/datetime.cpp
  ${CMAKE_CURRENT_LIST_DIR}/stopwatch.cpp
)
