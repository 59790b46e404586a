# Sources of the system area.
list(APPEND ZORV_FOUNDATION_SOURCES
  # clocks, processors, libraries, console

  # named file lock, process control

)
