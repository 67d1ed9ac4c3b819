#!/usr/bin/env bash
# Runs the demo against a built tree and checks that it succeeds, shows at
# least three different sections and leaves no process behind.
set -euo pipefail
repo=$1 build=$2
out=$(mktemp)
trap 'rm -f "$out"' EXIT
start=$SECONDS
"$repo/scripts/demo.sh" "$build" >"$out" 2>&1 || { cat "$out"; echo "demo failed"; exit 1; }
cat "$out"
(( SECONDS - start < 60 )) || { echo "demo took $((SECONDS - start)) s"; exit 1; }
# Section titles are the unindented lines of the listings.
sections=$(grep -v -e '^ ' -e '^"' -e '^==' -e '^engaged' -e '^no results' -e '^$' -e '^kx-' "$out" \
           | sed 's/\x1b\[[0-9;]*m//g' | sort -u | wc -l)
(( sections >= 3 )) || { echo "demo showed $sections sections"; exit 1; }
# Every process the demo starts names its private tree on its command line.
if pgrep -f 'kx-demo\.' >/dev/null; then
  echo "demo left a process behind"; exit 1
fi
