#!/usr/bin/env bash
# Installs what is needed, builds the Debian package, and says where it is.
set -euo pipefail
cd "$(dirname "$0")/.."
. scripts/packages.sh

install_packages "${build_packages[@]}" dpkg-dev file
cmake --preset release -B build/package -DBUILD_TESTING=OFF -DCMAKE_INSTALL_PREFIX=/usr \
    -DRUX_DEFAULT_ROOT=/var/lib/rux >/dev/null
cmake --build build/package
(cd build/package && cpack >/dev/null)
ls "$PWD"/build/package/rux_*.deb
