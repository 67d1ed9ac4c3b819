# The mail indexing benchmark drives the daemon's indexer directly.
target_link_libraries(mail_index_bench PRIVATE kx_searchd)
