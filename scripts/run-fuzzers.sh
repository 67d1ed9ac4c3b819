#!/usr/bin/env bash
# Runs every libFuzzer target for a bounded time, seeded with its corpus.
set -euo pipefail
build=${1:-build/fuzz}
seconds=${2:-60}
root=$(cd "$(dirname "$0")/.." && pwd)
status=0
for bin in "$build"/*_fuzz; do
  [[ -x "$bin" ]] || continue
  name=$(basename "$bin" _fuzz)
  work=$(mktemp -d)
  seeds="$root/fuzz/corpus/$name"
  echo "== $name (${seconds}s)"
  if ! "$bin" -max_total_time="$seconds" -print_final_stats=1 "$work" ${seeds:+"$seeds"} 2>&1 \
      | grep -E '^(stat::number_of_executed_units|==[0-9]+==ERROR|SUMMARY|Done)'; then
    status=1
  fi
  rm -rf "$work"
done
exit $status
