# Sources of the threading area.
list(APPEND ZORV_FOUNDATION_SOURCES
  # locks, conditions, threads and tasks
  ${CMAKE_CURRENT_LIST_DIR}/lock.cpp
  ${CMAKE_CURRENT_LIST_DIR}/lockcondition.cpp
  ${CMAKE_CURRENT_LIST_DIR}/readwritelock.cpp
  ${CMAKE_CURRENT_LIST_DIR}/thread.cpp

  # pools, timers and schedulers

)
