# The other process of the message service's cross-process tests.
add_executable(message_peer ${CMAKE_CURRENT_SOURCE_DIR}/message_peer.cpp)
target_link_libraries(message_peer PRIVATE kxsearch_static)
set_target_properties(message_peer PROPERTIES
  RUNTIME_OUTPUT_DIRECTORY ${CMAKE_BINARY_DIR})
