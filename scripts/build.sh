#!/usr/bin/env bash
# build.sh [BUILD_DIR] [extra cmake args...]: configures and builds one tree.
set -euo pipefail
cd "$(dirname "$0")/.."
dir=${1:-build}; shift || true
cmake -S . -B "$dir" -G Ninja -DCMAKE_BUILD_TYPE=${BUILD_TYPE:-RelWithDebInfo} "$@" >/dev/null
cmake --build "$dir" -j "$(nproc)"
