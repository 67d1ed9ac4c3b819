#!/bin/bash
# Fails when an include reaches up a layer. The layers come from
# scripts/layers.txt: every folder by longest prefix, every public header in
# include/kx/ by name, so `#include "kx/..."` is checked like any other.
# Test files (*_test.cpp, *_testing.h) may also use tests/support/.
set -euo pipefail
cd "$(dirname "$0")/.."

table=scripts/layers.txt
status=0

# Every public header must have a layer.
for header in include/kx/*.h; do
  if ! grep -qE "^${header}[[:space:]]" "$table"; then
    echo "check-layers: $header has no layer in $table" >&2
    status=1
  fi
done

# One awk pass over every (file, included path) pair.
git ls-files -co --exclude-standard -- '*.h' '*.hpp' '*.cpp' '*.cc' |
  grep -v '^build/' |
  xargs grep -HnE '^[[:space:]]*#[[:space:]]*include[[:space:]]*"' |
  awk -v table="$table" '
    BEGIN {
      while ((getline line < table) > 0) {
        sub(/#.*/, "", line)
        if (split(line, f, /[[:space:]]+/) < 2) continue
        if (f[1] ~ /\/$/) folder[f[1]] = f[2]; else header[f[1]] = f[2]
      }
      bad = 0
    }
    function layerOf(path,    best, len, p) {
      if (path in header) return header[path]
      best = ""; len = 0
      for (p in folder)
        if (index(path, p) == 1 && length(p) > len) { best = folder[p]; len = length(p) }
      return best
    }
    {
      file = $0; sub(/:.*/, "", file)
      lineno = $0; sub(/^[^:]*:/, "", lineno); sub(/:.*/, "", lineno)
      inc = $0; sub(/^[^"]*"/, "", inc); sub(/".*/, "", inc)
      target = inc
      if (inc ~ /^kx\//) target = "include/" inc
      else if (inc !~ /\//) next            # same-folder include
      if (file ~ /^include\/kx\// && inc !~ /^kx\//) {
        printf "check-layers: %s:%s: a public header includes the internal %s\n", file, lineno, inc > "/dev/stderr"
        bad = 1; next
      }
      if (target ~ /^tests\/support\// && file ~ /(_test\.cpp|_testing\.h)$/) next
      from = layerOf(file); to = layerOf(target)
      if (from == "") { printf "check-layers: %s has no layer\n", file > "/dev/stderr"; bad = 1; next }
      if (to == "") {
        if (inc ~ /^kx\//) { printf "check-layers: %s:%s: %s has no layer\n", file, lineno, inc > "/dev/stderr"; bad = 1 }
        next                                # generated or third-party path
      }
      if (to + 0 > from + 0) {
        printf "check-layers: %s:%s includes %s (layer %s above %s)\n", file, lineno, inc, to, from > "/dev/stderr"
        bad = 1
      }
    }
    END { exit bad }' || status=1

exit $status
