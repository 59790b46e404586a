# Sources of the threading area.
list(APPEND ZORV_FOUNDATION_SOURCES
  # locks, conditions, threads and tasks
  ${CMAKE_CURRENT_LIST_DIR}/lock.cpp
  ${CMAKE_CURRENT_LIST_DIR}/lockcondition.cpp
  ${CMAKE_CURRENT_LIST_DIR}/readwritelock.cpp
  ${CMAKE_CURRENT_LIST_DIR}/thread.cpp

  # pools, timers and schedulers
  ${CMAKE_CURRENT_LIST_DIR}/threadpool/taskqueue.cpp
  ${CMAKE_CURRENT_LIST_DIR}/threadpool/threadpool.cpp
  ${CMAKE_CURRENT_LIST_DIR}/threadpool/affinitythreadpool.cpp
  ${CMAKE_CURRENT_LIST_DIR}/timer/timerscheduler.cpp
  ${CMAKE_CURRENT_LIST_DIR}/scheduler/globaltaskscheduler.cpp
  ${CMAKE_CURRENT_LIST_DIR}/scheduler/globaltimerscheduler.cpp
)

# locks, conditions, threads and tasks: the lock calls the mutex through the
# GOT rather than a PLT stub, one indirect jump less on every lock and unlock.
if(CMAKE_CXX_COMPILER_ID MATCHES "GNU|Clang" AND CMAKE_SYSTEM_PROCESSOR MATCHES "x86_64|AMD64")
  set_source_files_properties(${CMAKE_CURRENT_LIST_DIR}/lock.cpp PROPERTIES COMPILE_OPTIONS -fno-plt)
endif()
