# Sources of the text area.
list(APPEND ZORV_FOUNDATION_SOURCES
)
