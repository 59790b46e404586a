# Sources of the threading area.
list(APPEND ZORV_FOUNDATION_SOURCES
)
