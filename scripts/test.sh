#!/usr/bin/env bash
# Installs dependencies, builds and runs the whole test suite: the plain build, the same suite
# under ASan+UBSan and under TSan, and a replay of the saved fuzzing corpora.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/install-deps.sh
jobs=$(nproc)

# Runs one tree's suite; on a failure the failed tests run once more, alone and verbose, so that
# their output closes the log where a CI summary shows it.
suite() {
  local dir=$1; shift
  if ctest --test-dir "$dir" --output-on-failure -j "$jobs" "$@"; then return 0; fi
  echo "=== failed in $dir, once more with their output:"
  ctest --test-dir "$dir" --rerun-failed --output-on-failure "$@" 2>&1 | tail -n 150
  return 1
}

bash scripts/build.sh build
suite build --timeout 300

BUILD_TYPE=Debug bash scripts/build.sh build-asan -DTROV_SANITIZE=address -DTROV_BENCH=OFF
ASAN_OPTIONS=detect_leaks=1:abort_on_error=1 UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1 \
  suite build-asan --timeout 600

BUILD_TYPE=Debug bash scripts/build.sh build-tsan -DTROV_SANITIZE=thread -DTROV_BENCH=OFF
TSAN_OPTIONS=halt_on_error=1:second_deadlock_stack=1 \
  suite build-tsan --timeout 900

CC=clang CXX=clang++ BUILD_TYPE=Debug bash scripts/build.sh build-fuzz -DTROV_FUZZ=ON
for f in build-fuzz/fuzz/*_fuzz; do
  [ -x "$f" ] || continue
  name=$(basename "$f")
  corpus=fuzz/corpus/${name%_fuzz}
  mkdir -p "$corpus"
  echo "replaying $corpus through $name"
  "$f" -runs=0 "$corpus" 2>&1 | tail -n 2
done
