#!/usr/bin/env bash
# Installs what Korvane needs (Debian 12), builds it, and then either compares
# two directories (default: the bundled sample pair) or runs the test suite.
#   ./build.sh [ORIGINAL MODIFIED]   build, then compare
#   ./build.sh test                  build, then run every test
set -euo pipefail
cd "$(dirname "$0")"

packages=(build-essential cmake ninja-build pkg-config qt6-base-dev liburing-dev libplist-dev
          libbenchmark-dev util-linux)

install_packages() {
    local missing=()
    for p in "${packages[@]}"; do
        dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed' || missing+=("$p")
    done
    [ ${#missing[@]} -eq 0 ] && return 0
    local sudo=()
    [ "$(id -u)" -eq 0 ] || sudo=(sudo)
    "${sudo[@]}" apt-get update
    DEBIAN_FRONTEND=noninteractive "${sudo[@]}" apt-get install -y --no-install-recommends "${missing[@]}"
}

build() {
    local dir=$1; shift
    cmake -S . -B "$dir" -G Ninja "$@" >/dev/null
    cmake --build "$dir"
}

install_packages
if [ "${1:-}" = test ]; then
    build build
    ctest --test-dir build --output-on-failure -j"$(nproc)"
    exit
fi

build build
original=${1:-Resources/samples/original}
modified=${2:-Resources/samples/modified}
status=0
./build/Source/application/kvdiff "$original" "$modified" || status=$?
# 1 only says that the trees differ; 2 is trouble.
[ "$status" -le 1 ]
