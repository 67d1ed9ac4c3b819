# A second process for the preference store's cross-process tests.
add_executable(preferences_helper ${CMAKE_CURRENT_SOURCE_DIR}/preferences_helper.cpp)
target_link_libraries(preferences_helper PRIVATE kxsearch_static)
set_target_properties(preferences_helper PROPERTIES
  RUNTIME_OUTPUT_DIRECTORY ${CMAKE_BINARY_DIR})
