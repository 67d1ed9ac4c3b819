# The daemon side is the scriptable test daemon under the service launcher.
if(TARGET test_daemon AND TARGET kx-launch)
  add_dependencies(query_latency_bench test_daemon kx-launch)
  target_compile_definitions(query_latency_bench PRIVATE
    KX_TEST_DAEMON="$<TARGET_FILE:test_daemon>"
    KX_LAUNCH="$<TARGET_FILE:kx-launch>")
endif()
