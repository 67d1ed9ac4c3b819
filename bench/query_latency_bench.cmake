# The daemon side is the scriptable test daemon under the service launcher.
kx_bench_uses_test_daemon(query_latency_bench)
