# Sources of the io area.
list(APPEND ZORV_FOUNDATION_SOURCES
)
