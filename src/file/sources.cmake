# Sources of the file area.
list(APPEND ZORV_FOUNDATION_SOURCES
)
