# Sources of the crypto area.
list(APPEND ZORV_FOUNDATION_SOURCES
)
