#!/usr/bin/env bash
# Installs what is needed, builds, and runs all tests.
#
# usage: scripts/test.sh [PRESET]     release (default), debug, asan or tsan
set -euo pipefail
cd "$(dirname "$0")/.."
. scripts/packages.sh
. scripts/place.sh
if [ "$(df -k --output=avail "$TMPDIR" | tail -n 1)" -lt 1000000 ]; then
    echo "The tests need 1 GB in $TMPDIR, or TMPDIR to name another directory on a disk or in memory" >&2
    exit 1
fi

preset=${1:-release}
install_packages "${build_packages[@]}" "${test_packages[@]}"
cmake --preset "$preset"
cmake --build --preset "$preset"
ctest --preset "$preset" -j "$(nproc)"
