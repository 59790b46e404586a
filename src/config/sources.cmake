# Sources of the config area.
list(APPEND ZORV_FOUNDATION_SOURCES
)
