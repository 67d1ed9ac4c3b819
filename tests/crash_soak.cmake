# The daemon crash soak (tests/crash_soak/): a program, run briefly by ctest
# and at length by `make soak`.
file(GLOB _soak_srcs CONFIGURE_DEPENDS ${CMAKE_CURRENT_SOURCE_DIR}/crash_soak/*.cpp)
add_executable(crash_soak ${_soak_srcs})
target_link_libraries(crash_soak PRIVATE kx_test_main)
target_compile_definitions(crash_soak PRIVATE
  KX_EXAMPLES_DATA="${CMAKE_SOURCE_DIR}/examples/data"
  KX_BUILD_DIR="${CMAKE_BINARY_DIR}")
set_target_properties(crash_soak PROPERTIES RUNTIME_OUTPUT_DIRECTORY ${CMAKE_BINARY_DIR})
add_dependencies(crash_soak kx-searchd kx-launch)
add_test(NAME crash_soak COMMAND crash_soak --iterations 50)
set_tests_properties(crash_soak PROPERTIES TIMEOUT 300
  ENVIRONMENT "KX_RESOURCE_DIR=${CMAKE_BINARY_DIR}/resources")
