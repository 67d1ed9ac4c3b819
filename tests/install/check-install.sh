#!/bin/bash
# Installs the build tree into a temporary prefix and builds a client against
# the installed tree twice: through the CMake package and through pkg-config.
# Usage: check-install.sh <build dir> <client source dir>
# $KX_CLIENT_FLAGS: compiler and linker flags the build itself used.
set -euo pipefail
build=$1
client=$2
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

cmake --install "$build" --prefix "$work/prefix" >/dev/null

# A clean environment: nothing from the source or build tree may leak in.
unset CPATH CPLUS_INCLUDE_PATH LIBRARY_PATH

cmake -S "$client" -B "$work/cmake" -G Ninja -DCMAKE_PREFIX_PATH="$work/prefix" \
  -DCMAKE_BUILD_TYPE=Release -DCMAKE_CXX_FLAGS="${KX_CLIENT_FLAGS:-}" \
  -DCMAKE_EXE_LINKER_FLAGS="${KX_CLIENT_FLAGS:-}" >/dev/null
cmake --build "$work/cmake" >/dev/null
"$work/cmake/client"

pcdir=$(dirname "$(find "$work/prefix" -name kxsearch.pc | head -1)")
export PKG_CONFIG_PATH=$pcdir
libdir=$(pkg-config --variable=libdir kxsearch)
# shellcheck disable=SC2046
g++ -std=c++20 ${KX_CLIENT_FLAGS:-} -o "$work/pc-client" "$client/client.cpp" \
  $(pkg-config --cflags --libs kxsearch) \
  -Wl,-rpath,"$libdir"
"$work/pc-client"
