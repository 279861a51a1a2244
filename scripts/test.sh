#!/usr/bin/env bash
# Installs dependencies, builds and runs the whole test suite: the plain build, the same suite
# under ASan+UBSan and under TSan, and a replay of the saved fuzzing corpora.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/install-deps.sh
jobs=$(nproc)

bash scripts/build.sh build
ctest --test-dir build --output-on-failure -j "$jobs" --timeout 300

BUILD_TYPE=Debug bash scripts/build.sh build-asan -DTROV_SANITIZE=address -DTROV_BENCH=OFF
ASAN_OPTIONS=detect_leaks=1:abort_on_error=1 UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1 \
  ctest --test-dir build-asan --output-on-failure -j "$jobs" --timeout 600

BUILD_TYPE=Debug bash scripts/build.sh build-tsan -DTROV_SANITIZE=thread -DTROV_BENCH=OFF
TSAN_OPTIONS=halt_on_error=1:second_deadlock_stack=1 \
  ctest --test-dir build-tsan --output-on-failure -j "$jobs" --timeout 900

CC=clang CXX=clang++ BUILD_TYPE=Debug bash scripts/build.sh build-fuzz -DTROV_FUZZ=ON
for f in build-fuzz/fuzz/*_fuzz; do
  [ -x "$f" ] || continue
  name=$(basename "$f")
  corpus=fuzz/corpus/${name%_fuzz}
  mkdir -p "$corpus"
  echo "replaying $corpus through $name"
  "$f" -runs=0 "$corpus" 2>&1 | tail -n 2
done
