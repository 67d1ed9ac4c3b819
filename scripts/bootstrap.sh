#!/usr/bin/env bash
# Installs the Debian packages the build, the tests and the benchmarks need.
# Idempotent and silent when everything is already present.
set -euo pipefail

packages=(
  build-essential cmake ninja-build pkg-config
  libgtest-dev libgmock-dev libbenchmark-dev
  libasio-dev libicu-dev icu-devtools libplist-dev libssl-dev
  nlohmann-json3-dev libsqlite3-dev
  libprotobuf-dev protobuf-compiler
  libsystemd-dev dbus dbus-daemon util-linux
  clang-14 libclang-rt-14-dev
  attr
  qt6-base-dev
  libglib2.0-dev
  libqalculate-dev librsvg2-dev
  libgmime-3.0-dev libical-dev
  libpoppler-cpp-dev
  # The end-to-end benchmark's anchor only, never linked into the product.
  libtracker-sparql-3.0-dev
)

missing=()
for p in "${packages[@]}"; do
  status=$(dpkg-query -W -f='${Status}' "$p" 2>/dev/null || true)
  [[ "$status" == "install ok installed" ]] || missing+=("$p")
done
[[ ${#missing[@]} -eq 0 ]] && exit 0

echo "bootstrap: installing ${missing[*]}"
as_root=()
[[ $(id -u) -eq 0 ]] || as_root=(sudo)
export DEBIAN_FRONTEND=noninteractive
"${as_root[@]}" apt-get update -qq
"${as_root[@]}" apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
