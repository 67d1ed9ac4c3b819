# The daemon's benchmark builds its corpus with the daemon's index code and
# queries a kx-searchd process.
target_link_libraries(searchd_bench PRIVATE kx_searchd)
add_dependencies(searchd_bench kx-searchd)
target_compile_definitions(searchd_bench PRIVATE KX_SEARCHD="$<TARGET_FILE:kx-searchd>")
