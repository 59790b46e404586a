# Sources of the threading area.
list(APPEND ZORV_FOUNDATION_SOURCES
  # locks, conditions, threads and tasks

  # pools, timers and schedulers

)
