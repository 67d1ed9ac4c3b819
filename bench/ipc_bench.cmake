# The IPC benchmark's servers run in a peer process of their own; the D-Bus
# contender needs sd-bus on both ends, a dbus-daemon and taskset to pin it.
pkg_check_modules(SYSTEMD REQUIRED IMPORTED_TARGET libsystemd)
add_executable(ipc_bench_peer ${CMAKE_CURRENT_SOURCE_DIR}/ipc_bench_peer.cpp)
target_link_libraries(ipc_bench_peer PRIVATE kxsearch_static PkgConfig::SYSTEMD)
target_link_libraries(${_name} PRIVATE PkgConfig::SYSTEMD)
add_dependencies(${_name} ipc_bench_peer)
target_compile_definitions(${_name} PRIVATE KX_IPC_BENCH_PEER="$<TARGET_FILE:ipc_bench_peer>")
find_program(KX_DBUS_DAEMON_PROGRAM dbus-daemon)
find_program(KX_TASKSET_PROGRAM taskset)
if(KX_DBUS_DAEMON_PROGRAM AND KX_TASKSET_PROGRAM)
  target_compile_definitions(${_name} PRIVATE KX_DBUS_DAEMON="${KX_DBUS_DAEMON_PROGRAM}"
                                              KX_TASKSET="${KX_TASKSET_PROGRAM}")
endif()
