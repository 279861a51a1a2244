#!/usr/bin/env bash
# Installs dependencies, builds and runs the whole test suite: the plain build, the same suite
# under ASan+UBSan, the threaded tests (event monitor, heartbeat channel, session) under TSan, and
# a replay of the saved fuzzing corpora.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/install-deps.sh
jobs=$(nproc)

bash scripts/build.sh build
ctest --test-dir build --output-on-failure -j "$jobs" --timeout 300

BUILD_TYPE=Debug bash scripts/build.sh build-asan -DTROV_SANITIZE=address
ASAN_OPTIONS=detect_leaks=1:abort_on_error=1 UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1 \
  ctest --test-dir build-asan --output-on-failure -j "$jobs" --timeout 600

cmake -S . -B build-tsan -G Ninja -DCMAKE_BUILD_TYPE=Debug -DTROV_SANITIZE=thread >/dev/null
cmake --build build-tsan -j "$jobs" --target tests_objects tests_proxy
TSAN_OPTIONS=halt_on_error=1 build-tsan/tests_objects --gtest_filter='Monitor*' --gtest_brief=1
TSAN_OPTIONS=halt_on_error=1 build-tsan/tests_proxy --gtest_filter='HeartbeatChannel*:WireSession*' --gtest_brief=1

CC=clang CXX=clang++ BUILD_TYPE=Debug bash scripts/build.sh build-fuzz -DTROV_FUZZ=ON
for f in build-fuzz/fuzz/*_fuzz; do
  [ -x "$f" ] || continue
  name=$(basename "$f")
  corpus=fuzz/corpus/${name%_fuzz}
  mkdir -p "$corpus"
  echo "replaying $corpus through $name"
  "$f" -runs=0 "$corpus" 2>&1 | tail -n 2
done
