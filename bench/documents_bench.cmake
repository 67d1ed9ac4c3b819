# The documents benchmark indexes with the daemon's code, copies the sample
# PDFs and queries a kx-searchd process.
target_link_libraries(documents_bench PRIVATE kx_searchd)
add_dependencies(documents_bench kx-searchd)
target_compile_definitions(documents_bench PRIVATE KX_SEARCHD="$<TARGET_FILE:kx-searchd>"
  KX_EXAMPLES_DATA="${CMAKE_SOURCE_DIR}/examples/data")
