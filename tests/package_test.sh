#!/usr/bin/env bash
# The package is installed, upgraded, removed and purged in a copy of this system, its programs do their work,
# and what an administrator has decided stays decided.
#
# usage: package_test.sh PACKAGE.deb
set -euo pipefail
package=${1:?usage: package_test.sh PACKAGE.deb}
base=$(mktemp -d)
root=$base/root
service=
finish() {
    [ -z "$service" ] || kill "$service" 2>/dev/null || true
    umount -R "$root" 2>/dev/null || true
    umount "$base" 2>/dev/null || true
    rmdir "$base"
}
trap finish EXIT

fail() {
    echo "$*" >&2
    exit 1
}
if ! mount -t tmpfs none "$base" 2>/dev/null || ! mkdir "$root" "$base/upper" "$base/work" ||
    ! mount -t overlay none -o "lowerdir=/,upperdir=$base/upper,workdir=$base/work" "$root"; then
    echo "SKIPPED: needs root and overlays"
    exit 0
fi
mount -t tmpfs none "$root/run"
mount -t proc none "$root/proc"
cp "$package" "$root/run/rux.deb"

# In the place of systemctl, which has no manager to talk to there: a note of what that would be asked.
mkdir -p "$root/run/systemd/system"
cp "$(command -v systemctl)" "$root/usr/bin/systemctl.real"
rm -f "$root/usr/bin/systemctl" "$root/usr/sbin/policy-rc.d"
cat >"$root/usr/bin/systemctl" <<'END'
#!/bin/sh
echo "$*" >>/run/asked
case "$*" in
    *preset*) exec systemctl.real "$@" ;;
    *is-enabled*) exec systemctl.real --root=/ is-enabled rux.service ;;
    *start*) [ ! -L /etc/systemd/system/rux.service ] ;; # that one is masked
esac
END
chmod +x "$root/usr/bin/systemctl"
in_root() { chroot "$root" env PATH=/usr/sbin:/usr/bin:/sbin:/bin "$@"; }
# Installs the package, and says what systemctl was asked to do for the service.
install_package() {
    : >"$root/run/asked"
    in_root dpkg --force-depends -i /run/rux.deb >/dev/null || fail "the installation has failed"
    grep -oE '(try-re|re)?start rux.service' "$root/run/asked" || true
}
is_enabled() { [ -L "$root/etc/systemd/system/multi-user.target.wants/rux.service" ]; }

[ "$(install_package)" = "start rux.service" ] || fail "it is not started"
is_enabled || fail "it is not enabled"
diff <(in_root dpkg -L rux | while read -r path; do [ -d "$root$path" ] || echo "$path"; done | sort) - <<'END'
/etc/rux/sample.conf
/usr/bin/rux
/usr/bin/ruxctl
/usr/lib/systemd/system/rux-dedupe@.service
/usr/lib/systemd/system/rux-dedupe@.timer
/usr/lib/systemd/system/rux.service
/usr/lib/sysusers.d/rux.conf
/usr/share/bash-completion/completions/ruxctl
/usr/share/doc/rux/LICENSE
/usr/share/doc/rux/README.md
/usr/share/doc/rux/decisions.md
/usr/share/doc/rux/safety.md
/usr/share/man/man1/ruxctl.1
/usr/share/man/man8/rux.8
/usr/share/rux/exceptions.rules
/usr/share/zsh/vendor-completions/_ruxctl
END
rules=$root/var/lib/rux/data/local/zel/RUXExceptRules.json
python3 -c 'import json, sys; print(*json.load(sys.stdin), sep="\n")' <"$rules" |
    diff - <(grep -v '^#' "$root/usr/share/rux/exceptions.rules") || fail "the exceptions are not set"
echo '["a rule of one'"'"'s own"]' >"$rules"
[ "$(stat -c %a "$root/var/lib/rux")" = 700 ] || fail "the databases are open to others"
[ "$(readlink "$root/var/lib/rux/run")" = /run ] || fail "the sockets are not in /run"
in_root id -u rux >/dev/null || fail "there is no user for it"
grep -q '^ExecStart=/usr/bin/rux$' "$root/usr/lib/systemd/system/rux.service"
dpkg-deb -f "$package" Depends | grep -q libjsoncpp || fail "the libraries are not named"
in_root systemd-analyze verify --man=no rux.service rux-dedupe@photos.service rux-dedupe@photos.timer || fail "the unit has faults"
# Of 10, which is no protection at all.
exposure=$(systemd-analyze security --offline=true --root="$root" rux.service --no-pager | tail -n 1 |
    grep -o '[0-9]\+\.[0-9]')
echo "exposure $exposure"
[ "${exposure%.*}" -le 1 ] || fail "the unit protects too little"

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
# As the timer would have it.
unit=$root/usr/lib/systemd/system/rux-dedupe@.service
DIRECTORIES=$base/tree OPTIONS=--yes sh -c "$root$(sed -n 's/^ExecStart=//p' "$unit")" >/dev/null 2>&1
[ "$base/tree/a" -ef "$base/tree/b" ] || fail "nothing was linked"
# Without RUX_ROOT the packaged client looks where the packaged service is.
grep -qa /var/lib/rux "$root/usr/bin/ruxctl" || fail "the default root is not built in"

[ "$(install_package)" = "try-restart rux.service" ] || fail "an upgrade does not replace the program that runs"
grep -q own "$rules" || fail "an upgrade sets the exceptions again"
in_root systemctl.real --root=/ disable rux.service 2>/dev/null
[ "$(install_package)" = "try-restart rux.service" ] || fail "an upgrade starts what is disabled"
! is_enabled || fail "an upgrade enables what is disabled"
ln -s /dev/null "$root/etc/systemd/system/rux.service"
install_package >/dev/null
[ -L "$root/etc/systemd/system/rux.service" ] || fail "an upgrade lifts a mask"
rm "$root/etc/systemd/system/rux.service"

mount -t tmpfs none "$root/var/lib/rux"
mkdir -p "$root/var/lib/rux/data/local/zel/s"
in_root dpkg -r rux >/dev/null 2>&1
[ -d "$root/var/lib/rux/data/local/zel/s" ] || fail "removing the package has removed the databases"
in_root dpkg -P rux >/dev/null 2>&1 || fail "the package cannot be purged from a mounted directory"
[ -z "$(ls -A "$root/var/lib/rux")" ] || fail "left behind: $(ls "$root/var/lib/rux")"
echo ok
