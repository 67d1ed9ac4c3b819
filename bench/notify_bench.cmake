# The cross-process case needs the echo helper built by the tests.
if(TARGET notify_helper)
  add_dependencies(notify_bench notify_helper)
  target_compile_definitions(notify_bench PRIVATE
    KX_NOTIFY_HELPER="$<TARGET_FILE:notify_helper>")
endif()
