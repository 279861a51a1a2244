#!/usr/bin/env bash
# Installs dependencies, builds, and runs trovctl (by default against the built-in emulator).
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/install-deps.sh
bash scripts/build.sh build
exec ./build/tools/trovctl/trovctl "$@"
