# Sources of the memory area.
list(APPEND ZORV_FOUNDATION_SOURCES
)
