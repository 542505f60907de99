#!/usr/bin/env bash
# Installs clang, builds the fuzzers, and runs each of them from the seeds in fuzz/seeds.
#
# usage: scripts/fuzz.sh [SECONDS [TARGET...]]     30 seconds each by default
#
# What a fuzzer finds it writes to build/fuzz/findings; the exit status is then 1.
set -euo pipefail
cd "$(dirname "$0")/.."
. scripts/packages.sh

seconds=${1:-30}
[ $# -eq 0 ] || shift
targets=("$@")
[ ${#targets[@]} -gt 0 ] || targets=(transactions frames requests database)

install_packages "${build_packages[@]}" clang libclang-rt-14-dev
cmake -S . -B build/fuzz -G Ninja -DCMAKE_CXX_COMPILER=clang++ -DCMAKE_BUILD_TYPE=RelWithDebInfo \
    -DRUX_SANITIZE=fuzzer-no-link,address,undefined -DRUX_FUZZ=ON -DBUILD_TESTING=OFF >/dev/null
cmake --build build/fuzz >/dev/null
mkdir -p build/fuzz/findings

# What an input asks for is done to real files, so each fuzzer runs in a root that holds nothing but it.
unshare=(unshare --fork --pid)
[ "$(id -u)" -eq 0 ] || unshare+=(--map-root-user)
root=$(mktemp -d)
trap 'rm -rf "$root"' EXIT

# fill_root TARGET: the fuzzer, what it is linked with, its seeds and its corpus.
fill_root() {
    rm -rf "${root:?}"/*
    mkdir -p "$root"/{proc,dev,tmp,findings,corpus}
    touch "$root/this-root-is-for-fuzzing" "$root/dev/null"
    cp "build/fuzz/fuzz/$1_fuzz" "$root/fuzzer"
    ldd "$root/fuzzer" | grep -o '/[^ ]*' | while read -r library; do
        mkdir -p "$root$(dirname "$library")"
        cp -L "$library" "$root$library"
    done
    cp -r "fuzz/seeds/$1" "$root/seeds"
    mkdir -p "build/fuzz/corpus/$1"
    cp -r "build/fuzz/corpus/$1/." "$root/corpus/"
}

status=0
for target in "${targets[@]}"; do
    fill_root "$target"
    echo "Fuzzing $target for $seconds seconds"
    log=build/fuzz/$target.log
    # Bounds: 10 seconds an input, 2 GiB of memory.
    if "${unshare[@]}" --mount-proc="$root/proc" chroot "$root" /fuzzer \
        -max_total_time="$seconds" -timeout=10 -rss_limit_mb=2048 -max_len=4096 \
        -artifact_prefix=/findings/ -print_final_stats=1 /corpus /seeds >"$log" 2>&1; then
        grep -E 'DONE|Done' "$log"
    else
        tail -n 40 "$log"
        status=1
    fi
    cp -r "$root/corpus/." "build/fuzz/corpus/$target/"
    for finding in "$root"/findings/*; do
        [ ! -e "$finding" ] || cp "$finding" "build/fuzz/findings/$target-$(basename "$finding")"
    done
done
exit $status
