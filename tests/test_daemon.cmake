# The scriptable search daemon of the daemon-client tests and the query
# latency benchmark (see test_daemon.cpp); run under kx-launch.
add_executable(test_daemon ${CMAKE_CURRENT_SOURCE_DIR}/test_daemon.cpp)
target_link_libraries(test_daemon PRIVATE kxsearch_static)
set_target_properties(test_daemon PROPERTIES
  RUNTIME_OUTPUT_DIRECTORY ${CMAKE_BINARY_DIR})
