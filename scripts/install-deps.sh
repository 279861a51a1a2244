#!/usr/bin/env bash
# Installs every package the project builds, tests and runs with, by Debian package name.
# gettext compiles the message catalogues, man-db and groff-base render the manual pages in the
# staged-install test, dpkg-dev gives cpack the shared-library dependencies of the .deb.
set -euo pipefail
PKGS=(build-essential cmake ninja-build pkg-config git
      libgtest-dev libgmock-dev libbenchmark-dev
      uuid-dev libblkid-dev nlohmann-json3-dev libcli11-dev libreadline-dev gettext
      libssl-dev clang libclang-rt-14-dev
      man-db groff-base dpkg-dev)
missing=()
for p in "${PKGS[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed' || missing+=("$p")
done
if [ ${#missing[@]} -eq 0 ]; then
  exit 0
fi
SUDO=""
[ "$(id -u)" -eq 0 ] || SUDO="sudo"
export DEBIAN_FRONTEND=noninteractive
$SUDO apt-get update -q
$SUDO apt-get install -y -q --no-install-recommends "${missing[@]}"
