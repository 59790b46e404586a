# Sources of the time area.
list(APPEND ZORV_FOUNDATION_SOURCES
)
