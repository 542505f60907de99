#!/usr/bin/env bash
# Installs what is needed, builds, and shows what the service is for.
#
# usage: scripts/run.sh         scans a copy of a real directory of this machine, lists its duplicates,
#                               links them, proves that no content has changed, and restores them
#        scripts/run.sh DIR     scans DIR and lists its duplicates; changes nothing there
#
# The service runs under a root of its own, below the system's directory for temporary files, and is
# ended and removed with everything else that was made.
set -euo pipefail

target=
if [ $# -gt 1 ] || [[ ${1:-} == -* ]]; then
    sed -n '4,6s/^# //p' "$0" >&2
    exit 2
elif [ $# -eq 1 ]; then
    target=$(cd "$1" && pwd) || exit 2
fi

cd "$(dirname "$0")/.."
. scripts/packages.sh
. scripts/place.sh
install_packages "${build_packages[@]}"
echo "Building"
cmake --preset release -DBUILD_TESTING=OFF -B build/run >/dev/null
# One line that says how far it is, where somebody looks.
cmake --build build/run | if [ -t 1 ]; then
    sed -nu 's/^\(\[[0-9]*\/[0-9]*\]\).*/\1/p' | tr '\n' '\r'
    echo
else
    cat >/dev/null
fi

base=$(mktemp -d)
export RUX_ROOT=$base/root
service=
finish() {
    [ -z "$service" ] || kill "$service" 2>/dev/null || true
    rm -rf "$base"
}
trap finish EXIT
cmake --install build/run --prefix "$base/usr" >/dev/null
PATH=$base/usr/bin:$PATH
mkdir -p "$RUX_ROOT/data/local/zel"

rux 2>"$base/log" &
service=$!
for _ in $(seq 100); do
    ruxctl call 5 2>/dev/null && break
    sleep 0.05
done
ruxctl call 5 || { cat "$base/log"; exit 1; }
echo "The service runs (process $service, RUX_ROOT=$RUX_ROOT)"

if [ -n "$target" ]; then
    echo "Scanning $target"
    ruxctl scan --space show "$target"
    ruxctl list
    exit 0
fi

# copy_tree FILES: copies regular files of the machine, directory by directory, until there are FILES.
copy_tree() {
    local wanted=$1 have=0 source
    for source in /usr/share/doc /usr/share /usr/include /usr/lib/python3* /usr/lib /etc; do
        [ -d "$source" ] || continue
        # head ends the others early: their failure is no failure.
        find "$source" -xdev -type f -size -512k -print0 2>/dev/null | head -zn $((wanted - have)) |
            tar --null -T - -C / --ignore-failed-read -cf - 2>/dev/null | tar -xf - -C "$tree" || true
        have=$(find "$tree" -type f | wc -l)
        [ "$have" -lt "$wanted" ] || break
    done
}

# digests: the digest of every file, by path.
digests() { find "$tree" -type f -print0 | sort -z | xargs -0 md5sum; }
disk_use() { du -sk "$tree" | cut -f1; }

tree=$base/tree
mkdir "$tree"
echo "Copying files of this machine"
room=$(df -k --output=avail "$base" | tail -n 1)
copy_tree $((room > 500000 ? 5000 : 1000))
find "$tree" -type f -print0 | xargs -0 chmod 644
echo "  $(find "$tree" -type f | wc -l) files, $(disk_use) KiB"
digests >"$base/before"

echo "Scan, and list the duplicates"
ruxctl scan --space show "$tree"
ruxctl list
echo "Compression: one file of each group is kept, the others become links to it"
ruxctl compress --yes show
echo "  $(disk_use) KiB"
[ -n "$(find "$tree" -type f -links +1 -print -quit)" ] || { echo "No file has become a link" >&2; exit 1; }
digests | cmp - "$base/before" && echo "  every path has the content it had"
echo "Restore: every file has data of its own again"
ruxctl restore --yes --space show
echo "  $(disk_use) KiB, $(find "$tree" -type f -links +1 | wc -l) linked files"
digests | cmp - "$base/before" && echo "  every path has the content it had"
