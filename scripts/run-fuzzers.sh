#!/usr/bin/env bash
# Runs every libFuzzer target of a build tree for a bounded time, one after
# the other, each seeded with its corpus fuzz/corpus/<name>/ (the seeds are
# only read: new inputs go to a scratch directory that is thrown away).
#
#   scripts/run-fuzzers.sh [BUILD_DIR [SECONDS]]    default build/fuzz 60
#
# Prints per target the executions (stat::number_of_executed_units), the
# executions per second and any finding (crash, sanitizer report, leak,
# time-out, out-of-memory), then a summary table. Exits non-zero when a
# target found something, ended abnormally, or when there is no target.
# Each target's full log goes to BUILD_DIR/fuzz-logs/<name>.log and the
# input of a finding to BUILD_DIR/fuzz-artifacts/<name>/.
#
# FUZZ_TIMEOUT (default 10) is the per-input time-out in seconds.
# FUZZ_TARGETS, a space-separated list of names (e.g. "vcard mail"), runs
# only those targets: two lists in two shells fuzz on two cores at once.
set -uo pipefail
build=${1:-build/fuzz}
seconds=${2:-60}
timeout=${FUZZ_TIMEOUT:-10}
root=$(cd "$(dirname "$0")/.." && pwd)

# Undefined behaviour must stop the run so that libFuzzer records the input
# (the fuzz preset also builds with -fno-sanitize-recover=undefined).
export UBSAN_OPTIONS=${UBSAN_OPTIONS:-halt_on_error=1:print_stacktrace=1}

logs="$build/fuzz-logs"
artifacts="$build/fuzz-artifacts"
mkdir -p "$logs" "$artifacts"

status=0
summary=()
found=0
for bin in "$build"/*_fuzz; do
  [[ -f "$bin" && -x "$bin" ]] || continue
  name=$(basename "$bin" _fuzz)
  if [[ -n "${FUZZ_TARGETS:-}" && " $FUZZ_TARGETS " != *" $name "* ]]; then
    continue
  fi
  found=$((found + 1))
  log="$logs/$name.log"
  art="$artifacts/$name/"
  rm -rf "$art"
  mkdir -p "$art"
  work=$(mktemp -d)
  dirs=("$work")
  seeds="$root/fuzz/corpus/$name"
  [[ -d "$seeds" ]] && dirs+=("$seeds")

  echo "== $name (${seconds}s)"
  "$bin" -max_total_time="$seconds" -timeout="$timeout" -print_final_stats=1 \
    -artifact_prefix="$art" "${dirs[@]}" >"$log" 2>&1
  rc=$?
  rm -rf "$work"

  execs=$(sed -n 's/^stat::number_of_executed_units: *//p' "$log" | tail -n1)
  rate=$(sed -n 's/^stat::average_exec_per_sec: *//p' "$log" | tail -n1)
  # What libFuzzer and the sanitizers print when they find something.
  findings=$(grep -E '^==[0-9]+== ?ERROR|^SUMMARY: |runtime error:|deadly signal|ALARM: working on the last Unit|out-of-memory|Test unit written to' "$log" || true)
  grep -E '^(stat::number_of_executed_units|stat::average_exec_per_sec|Done )' "$log"

  verdict=ok
  if [[ $rc -ne 0 || -n "$findings" || -n "$(ls -A "$art")" ]]; then
    verdict="FINDING (exit $rc)"
    status=1
    echo "$findings"
    echo "full log: $log"
  elif [[ -z "$execs" ]]; then
    verdict="NO STATISTICS (exit $rc)"
    status=1
    tail -n 20 "$log"
  fi
  [[ -n "$(ls -A "$art")" ]] || rmdir "$art"
  summary+=("$(printf '%-18s %12s %8s  %s' "$name" "${execs:-?}" "${rate:-?}" "$verdict")")
done

if [[ $found -eq 0 ]]; then
  echo "run-fuzzers: no *_fuzz binary in $build (configure with the fuzz preset)" >&2
  exit 1
fi

echo
printf '%-18s %12s %8s  %s\n' target executions exec/s result
printf '%s\n' "${summary[@]}"
exit $status
