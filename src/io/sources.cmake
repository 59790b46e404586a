# Sources of the io area.
list(APPEND ZORV_FOUNDATION_SOURCES
  ${CMAKE_CURRENT_LIST_DIR}/archiver.cpp
  ${CMAKE_CURRENT_LIST_DIR}/serialization.cpp
  ${CMAKE_CURRENT_LIST_DIR}/stream.cpp
)
