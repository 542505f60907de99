#!/usr/bin/env bash
# The package is installed in a root of its own, its programs do their work, and it is removed.
#
# usage: package_test.sh PACKAGE.deb
set -euo pipefail
package=${1:?usage: package_test.sh PACKAGE.deb}
base=$(mktemp -d)
root=$base/root
service=
finish() {
    [ -z "$service" ] || kill "$service" 2>/dev/null || true
    rm -rf "$base"
}
trap finish EXIT

fail() {
    echo "$*" >&2
    exit 1
}
dpkg_in_root() {
    dpkg --root="$root" --force-script-chrootless --force-depends --force-not-root --log=/dev/null "$@" >/dev/null
}
# Everything below the root that is not dpkg's own.
files() { find "$root" -mindepth 1 -not -path "$root/var/lib/dpkg*" -not -type d | sed "s#^$root##" | sort; }

mkdir -p "$root"/var/lib/dpkg/{info,updates,triggers}
touch "$root"/var/lib/dpkg/status
dpkg_in_root -i "$package"
diff <(files) - <<'END'
/usr/bin/rux
/usr/bin/ruxctl
/usr/lib/systemd/system/rux.service
/usr/share/bash-completion/completions/ruxctl
/usr/share/doc/rux/LICENSE
/usr/share/doc/rux/README.md
/usr/share/doc/rux/decisions.md
/usr/share/doc/rux/safety.md
/usr/share/man/man1/ruxctl.1
/usr/share/man/man8/rux.8
/usr/share/zsh/vendor-completions/_ruxctl
/var/lib/rux/run
END
[ "$(stat -c %a "$root/var/lib/rux")" = 700 ] || fail "the databases are open to others"
[ "$(readlink "$root/var/lib/rux/run")" = /run ] || fail "the sockets are not in /run"
grep -q '^ExecStart=/usr/bin/rux$' "$root/usr/lib/systemd/system/rux.service"
dpkg-deb -f "$package" Depends | grep -q libjsoncpp || fail "the libraries are not named"
if command -v systemd-analyze >/dev/null; then
    # Of 10, which is no protection at all.
    exposure=$(systemd-analyze security --offline=true --root="$root" rux.service --no-pager | tail -n 1 |
        grep -o '[0-9]\+\.[0-9]')
    echo "exposure $exposure"
    [ "${exposure%.*}" -le 3 ] || fail "the unit protects too little"
fi

# The installed programs: a duplicate becomes a link.
export RUX_ROOT=$base/state
mkdir -p "$RUX_ROOT/data/local/zel" "$base/tree"
echo same >"$base/tree/a"
echo same >"$base/tree/b"
"$root/usr/bin/rux" 2>/dev/null &
service=$!
for _ in $(seq 100); do
    "$root/usr/bin/ruxctl" call 5 2>/dev/null && break
    sleep 0.05
done
"$root/usr/bin/ruxctl" scan --space s "$base/tree" >/dev/null
"$root/usr/bin/ruxctl" compress --yes s >/dev/null 2>&1
[ "$base/tree/a" -ef "$base/tree/b" ] || fail "nothing was linked"
# Without RUX_ROOT the packaged client looks where the packaged service is.
grep -qa /var/lib/rux "$root/usr/bin/ruxctl" || fail "the default root is not built in"

mkdir -p "$root/var/lib/rux/data/local/zel/s"
dpkg_in_root -r rux
[ -d "$root/var/lib/rux/data/local/zel/s" ] || fail "removing the package has removed the databases"
dpkg_in_root -P rux
[ -z "$(files)" ] && [ ! -e "$root/var/lib/rux" ] || fail "left behind: $(files)"
echo ok
