# Entry points. Every target runs the bootstrap first, so a fresh Debian 12
# machine needs nothing but `make test`.
FUZZ_SECONDS ?= 60
JOBS ?= 2

.PHONY: all bootstrap build test test-asan test-tsan bench fuzz clean demo soak

all: build

bootstrap:
	@./scripts/bootstrap.sh

build: bootstrap
	@cmake --preset default >/dev/null
	@cmake --build --preset default -j $(JOBS)

test: build
	@ctest --preset default -j $(JOBS)

test-asan: bootstrap
	@cmake --preset asan-ubsan >/dev/null
	@cmake --build --preset asan-ubsan -j $(JOBS)
	@ctest --preset asan-ubsan -j $(JOBS)

test-tsan: bootstrap
	@cmake --preset tsan >/dev/null
	@cmake --build --preset tsan -j $(JOBS)
	@TSAN_OPTIONS="halt_on_error=1 second_deadlock_stack=1" ctest --preset tsan -j $(JOBS)

# Builds only what the demo runs, then runs it in a private temporary tree;
# `make demo WINDOW=1` opens the search window instead when there is a display.
demo: bootstrap
	@cmake --preset default >/dev/null
	@cmake --build --preset default -j $(JOBS) --target kx-search kx-searchd kx-launch \
	  $(if $(WINDOW),kx-search-window)
	@WINDOW=$(WINDOW) ./scripts/demo.sh build/default

# The daemon crash soak at full length (`make test` runs 50 iterations);
# SOAK_SEED replays a failed run.
SOAK_ITERATIONS ?= 1000
soak: bootstrap
	@cmake --preset default >/dev/null
	@cmake --build --preset default -j $(JOBS) --target crash_soak kx-searchd kx-launch
	@KX_RESOURCE_DIR=build/default/resources ./build/default/crash_soak --iterations $(SOAK_ITERATIONS) \
	  $(if $(SOAK_SEED),--seed $(SOAK_SEED))

bench: build
	@./scripts/run-benchmarks.sh build/default

fuzz: bootstrap
	@cmake --preset fuzz >/dev/null
	@cmake --build --preset fuzz -j $(JOBS)
	@./scripts/run-fuzzers.sh build/fuzz $(FUZZ_SECONDS)

clean:
	rm -rf build
