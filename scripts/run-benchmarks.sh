#!/usr/bin/env bash
# Runs every benchmark executable of a build directory.
set -euo pipefail
build=${1:-build/default}
for bin in "$build"/bench/*_bench; do
  [[ -x "$bin" ]] || continue
  echo "== $(basename "$bin")"
  "$bin" --benchmark_min_time=0.2
done
