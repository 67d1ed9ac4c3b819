# Test executable per subsystem folder: every `<dir>/*_test.cpp`, linked with
# the static library and the isolating test main (each test process gets its
# own HOME, XDG directories and service directories).
function(kx_add_folder_tests dir)
  file(GLOB _tests CONFIGURE_DEPENDS ${CMAKE_SOURCE_DIR}/${dir}/*_test.cpp)
  if(NOT _tests)
    return()
  endif()
  string(REPLACE "/" "_" _name "${dir}")
  string(TOLOWER "${_name}" _name)
  kx_add_test_executable(${_name}_tests ${_tests})
endfunction()

function(kx_add_test_executable name)
  add_executable(${name} ${ARGN})
  target_link_libraries(${name} PRIVATE kxsearch_static kx_test_main
    GTest::gtest GTest::gmock)
  # Tests run one process per test so that process-wide state (log level,
  # once-only initialisation, counters) starts fresh in each.
  gtest_discover_tests(${name} DISCOVERY_TIMEOUT 60
    PROPERTIES TIMEOUT 120
    ENVIRONMENT "KX_RESOURCE_DIR=${CMAKE_BINARY_DIR}/resources")
endfunction()

# A fuzz target `fuzz/<name>_fuzz.cpp` defines LLVMFuzzerTestOneInput. In the
# normal build it becomes a corpus-replay test over fuzz/corpus/<name>/; with
# KX_LIBFUZZER it becomes a libFuzzer binary.
function(kx_add_fuzz_target name)
  set(_src ${CMAKE_SOURCE_DIR}/fuzz/${name}_fuzz.cpp)
  if(KX_LIBFUZZER)
    add_executable(${name}_fuzz ${_src})
    target_compile_options(${name}_fuzz PRIVATE -fsanitize=fuzzer)
    target_link_options(${name}_fuzz PRIVATE -fsanitize=fuzzer)
    target_link_libraries(${name}_fuzz PRIVATE kxsearch_static)
    # Beside each other at the top of the build tree, where
    # scripts/run-fuzzers.sh looks for them.
    set_target_properties(${name}_fuzz PROPERTIES
      RUNTIME_OUTPUT_DIRECTORY ${CMAKE_BINARY_DIR})
  elseif(KX_BUILD_TESTS)
    add_executable(${name}_replay ${_src} ${CMAKE_SOURCE_DIR}/fuzz/replay_main.cpp)
    target_link_libraries(${name}_replay PRIVATE kxsearch_static)
    add_test(NAME fuzz_replay.${name}
      COMMAND ${name}_replay ${CMAKE_SOURCE_DIR}/fuzz/corpus/${name})
  endif()
endfunction()
