# Sources of the config area.
list(APPEND ZORV_FOUNDATION_SOURCES
  ${CMAKE_CURRENT_LIST_DIR}/configarchiver.cpp
  ${CMAKE_CURRENT_LIST_DIR}/datareader.cpp
)
