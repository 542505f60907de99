#!/usr/bin/env bash
# Installs what is needed, builds, and runs all tests.
#
# usage: scripts/test.sh [PRESET]     release (default), debug, asan or tsan
set -euo pipefail
cd "$(dirname "$0")/.."
. scripts/packages.sh

preset=${1:-release}
install_packages "${build_packages[@]}" "${test_packages[@]}"
cmake --preset "$preset"
cmake --build --preset "$preset"
ctest --preset "$preset" -j "$(nproc)"
