#!/usr/bin/env bash
# build.sh [BUILD_DIR] [extra cmake args...]: configures and builds one tree.
set -euo pipefail
cd "$(dirname "$0")/.."
dir=${1:-build}; shift || true
launcher=()
# A compiler cache, where the machine has one, makes rebuilds of the several trees cheap.
if command -v ccache >/dev/null 2>&1; then
  launcher=(-DCMAKE_C_COMPILER_LAUNCHER=ccache -DCMAKE_CXX_COMPILER_LAUNCHER=ccache)
  export CCACHE_BASEDIR="$PWD" CCACHE_NOHASHDIR=1
fi
cmake -S . -B "$dir" -G Ninja -DCMAKE_BUILD_TYPE=${BUILD_TYPE:-RelWithDebInfo} "${launcher[@]}" "$@" >/dev/null
cmake --build "$dir" -j "$(nproc)"
