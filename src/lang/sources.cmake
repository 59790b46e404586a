list(APPEND ZORV_FOUNDATION_SOURCES
  ${CMAKE_CURRENT_LIST_DIR}/disposable.cpp
  ${CMAKE_CURRENT_LIST_DIR}/exception.cpp
  ${CMAKE_CURRENT_LIST_DIR}/interface.cpp
  ${CMAKE_CURRENT_LIST_DIR}/injection/service.cpp
)
