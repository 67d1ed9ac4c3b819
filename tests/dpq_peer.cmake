# The other process of the named-message tests: a scriptable server and
# client (see dpq_peer.cpp).
add_executable(dpq_peer ${CMAKE_CURRENT_SOURCE_DIR}/dpq_peer.cpp)
target_link_libraries(dpq_peer PRIVATE kxsearch_static)
set_target_properties(dpq_peer PROPERTIES
  RUNTIME_OUTPUT_DIRECTORY ${CMAKE_BINARY_DIR})
