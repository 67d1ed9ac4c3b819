# Runs kx-searchd over the sample data.
add_dependencies(searchd_hostile_bench kx-searchd)
target_compile_definitions(searchd_hostile_bench PRIVATE
  KX_SEARCHD="$<TARGET_FILE:kx-searchd>"
  KX_EXAMPLES_DATA="${CMAKE_SOURCE_DIR}/examples/data")
