#!/usr/bin/env bash
# Builds targets in the shared development tree (build/default). Several
# developers may build at once: a lock serialises the ninja runs.
set -euo pipefail
cd "$(dirname "$0")/.."
exec 9>/tmp/kx-dev-build.lock
flock 9
[[ -f build/default/build.ninja ]] || cmake --preset default >/dev/null
cmake --build build/default -j 2 ${1:+--target "$@"}
