#!/usr/bin/env bash
# The demo: kx-searchd over the sample data under kx-launch, in a private
# temporary tree (runtime and service directories, index, feedback log,
# preferences), queried with kx-search. Everything it starts is stopped and
# the tree removed on exit, however the script ends.
#
#   scripts/demo.sh [BUILD_DIR]     (default build/default, already built)
#
# With WINDOW=1 and a display, the search window opens over the same daemon
# instead of the typed queries; closing it ends the demo.
set -euo pipefail

repo=$(cd "$(dirname "$0")/.." && pwd)
build=${1:-$repo/build/default}
for tool in kx-search kx-searchd kx-launch; do
  [[ -x "$build/tools/$tool/$tool" ]] || { echo "demo: $build/tools/$tool/$tool is not built" >&2; exit 1; }
done
search="$build/tools/kx-search/kx-search"

root=$(mktemp -d "${TMPDIR:-/tmp}/kx-demo.XXXXXX")
launcher=
cleanup() {
  if [[ -n "$launcher" ]]; then
    # The launcher passes the signal on to the daemon and waits for it.
    kill -TERM "$launcher" 2>/dev/null || true
    wait "$launcher" 2>/dev/null || true
  fi
  rm -rf "$root"
}
trap cleanup EXIT
trap 'exit 130' INT TERM

# Nothing of the demo reaches the user's real directories.
mkdir -p "$root"/{home,run,config,cache,state,data-home}
chmod 700 "$root/run"
export HOME="$root/home" XDG_RUNTIME_DIR="$root/run" XDG_CONFIG_HOME="$root/config" \
       XDG_CACHE_HOME="$root/cache" XDG_STATE_HOME="$root/state" XDG_DATA_HOME="$root/data-home" \
       KX_SERVICE_DIR="$root/run/kx-services" KX_BUNDLE_IDENTIFIER=org.kxsearch.demo
cp -r "$repo/examples/data" "$root/data"

service=com.orvex.searchd
"$build/tools/kx-launch/kx-launch" --name "$service" -- "$build/tools/kx-searchd/kx-searchd" \
  --service "$service" --data-root "$root/data" --index "$root/index" 2>"$root/searchd.log" &
launcher=$!
for _ in $(seq 100); do
  [[ -S "$KX_SERVICE_DIR/$service" ]] && break
  sleep 0.05
done
[[ -S "$KX_SERVICE_DIR/$service" ]] || { echo "demo: kx-launch did not come up" >&2; cat "$root/searchd.log" >&2; exit 1; }

if [[ "${WINDOW:-}" == 1 && ( -n "${DISPLAY:-}" || -n "${WAYLAND_DISPLAY:-}" ) ]]; then
  "$build/tools/kx-search-window/kx-search-window"
  exit 0
fi

if [[ -t 1 ]]; then
  step() { printf '\n\033[1m== %s\033[0m\n' "$*"; }
else
  step() { printf '\n== %s\n' "$*"; }
fi
type_query() { "$search" --delay 120 "$@"; }

step "An application, typed one key at a time"
type_query fire
step "A contact"
type_query "ada lov"
step "A calculation"
type_query "12*7+3"
step "Before engaging: \"cal\""
"$search" cal
step "Engaging the second result (feedback to the daemon, nothing launched)"
"$search" --open 2 --no-launch cal
step "After engaging: the engaged result ranks first"
"$search" cal
