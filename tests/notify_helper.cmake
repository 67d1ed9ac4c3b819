# A second process for the named-notification tests and benchmark: posts
# names, or echoes one name back as another.
add_executable(notify_helper ${CMAKE_CURRENT_SOURCE_DIR}/notify_helper.cpp)
target_link_libraries(notify_helper PRIVATE kxsearch_static)
set_target_properties(notify_helper PROPERTIES
  RUNTIME_OUTPUT_DIRECTORY ${CMAKE_BINARY_DIR})
