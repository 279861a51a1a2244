#!/usr/bin/env bash
# package.sh [BUILD_DIR]: builds with the Debian prefix (/usr) and makes the .deb with cpack.
# The package's post-install registers the provider with trovctl's host registry
# (/etc/trovhwiprv/host.reg); its removal unregisters it.
set -euo pipefail
cd "$(dirname "$0")/.."
dir=${1:-build}
bash scripts/install-deps.sh
bash scripts/build.sh "$dir" -DCMAKE_INSTALL_PREFIX=/usr
(cd "$dir" && cpack -G DEB)
ls "$dir"/trovhwiprv_*.deb
