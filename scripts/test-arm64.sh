#!/usr/bin/env bash
# Builds everything for 64-bit Arm and runs the tests, on another machine under an emulator.
set -euo pipefail
cd "$(dirname "$0")/.."
[ "$(uname -m)" = aarch64 ] && exec scripts/test.sh
. scripts/packages.sh

if ! dpkg --print-foreign-architectures | grep -qx arm64; then
    as_root dpkg --add-architecture arm64
fi
install_packages "${build_packages[@]}" "${test_packages[@]}" g++-aarch64-linux-gnu qemu-user-static \
    libjsoncpp-dev:arm64 libssl-dev:arm64 libjemalloc2:arm64 libpcre2-dev:arm64 libgtest-dev:arm64
cmake --preset arm64
cmake --build --preset arm64

# Digests of many files at once belong into the vector unit.
kernel=build/arm64/CMakeFiles/platform.dir/platform/f2fs_io/digest/kernel_128.cpp.o
vector_operations=$(aarch64-linux-gnu-objdump -d "$kernel" | grep -cE '\b(add|eor|bsl|bif|bit|orn)\s+v[0-9]+\.')
echo "$vector_operations vector operations in the digests' block functions"
[ "$vector_operations" -gt 500 ]

ctest --preset arm64 -j "$(nproc)" "$@"
