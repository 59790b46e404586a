# Sources of the system area.
list(APPEND ZORV_FOUNDATION_SOURCES
)
