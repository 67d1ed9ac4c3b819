# The hostile daemon (see hostile_daemon.cpp), run under kx-launch, and the
# client's tests against it.
add_executable(hostile_daemon ${CMAKE_CURRENT_SOURCE_DIR}/hostile_daemon.cpp)
target_link_libraries(hostile_daemon PRIVATE kxsearch_static)
set_target_properties(hostile_daemon PROPERTIES
  RUNTIME_OUTPUT_DIRECTORY ${CMAKE_BINARY_DIR})
kx_add_test_executable(hostile_daemon_tests ${CMAKE_CURRENT_SOURCE_DIR}/hostile_daemon_test.cpp)
add_dependencies(hostile_daemon_tests hostile_daemon test_daemon kx-launch)
