#!/usr/bin/env bash
# Who may include what. The service knows the platform by its public headers alone, operations know
# nothing of each other, the client knows of the service how its database files lie on disk and of the
# platform what linking asks beforehand and where its sockets are, and the platform knows nothing of it but where.
set -u
cd "${1:?usage: layering_test.sh SOURCE_DIR}" || exit 2

platform_headers='android/log.h android-base/properties.h utils/Errors.h utils/RefBase.h
utils/StrongPointer.h utils/String16.h utils/String8.h binder/IBinder.h binder/Binder.h binder/IInterface.h
binder/Parcel.h binder/Status.h binder/Stability.h binder/Trace.h binder/IServiceManager.h
binder/ProcessState.h binder/IPCThreadState.h tavo_f2fs_io.h'
failures=0
checked=0

# check FOLDER ALLOWED_PREFIX...: every quoted include of the folder's sources (tests aside) starts with
# one of the prefixes, or is one of the platform's headers.
check() {
    local folder=$1 file include prefix allowed
    shift
    while IFS=: read -r file include; do
        checked=$((checked + 1))
        allowed=no
        grep -qxF "$include" <<<"${platform_headers// /$'\n'}" && allowed=yes
        for prefix in "$@"; do [[ $include == "$prefix"* ]] && allowed=yes; done
        [ $allowed = yes ] && continue
        echo "$file must not include \"$include\""
        failures=$((failures + 1))
    done < <(grep -rHo --include='*.h' --include='*.cpp' --exclude='*_test.cpp' \
                 '^ *# *include *"[^"]*"' "$folder" | sed -E 's/:[^"]*"([^"]*)"/:\1/')
    # No other quotes: <...> is for the system and for libraries.
    while IFS=: read -r file include; do
        [ -e "$include" ] || [ -e "platform/$include" ] || [ -e "platform/include/$include" ] || continue
        echo "$file includes <$include>, which is the project's own"
        failures=$((failures + 1))
    done < <(grep -rHo --include='*.h' --include='*.cpp' '^ *# *include *<[^>]*>' "$folder" |
                 sed -E 's/:[^<]*<([^>]*)>/:\1/')
}

shared='request/ db/ control/'
check control control/
check db db/ control/
check request request/ db/ control/
# shellcheck disable=SC2086
check scan scan/ $shared
# shellcheck disable=SC2086
check dup dup/ $shared
# shellcheck disable=SC2086
check compress compress/ $shared
# shellcheck disable=SC2086
check service service/ scan/ dup/ compress/ $shared
check ruxctl ruxctl/ db/database_root.h db/files.h db/journal.h f2fs_io/hard_link.h root/run_dir.h
for folder in platform/*/; do
    # Its own folders stand for what its headers are made of.
    check "$folder" binder/ f2fs_io/ log/ properties/ root/ utils/
done

if grep -rnE --include='*.h' --include='*.cpp' '__ANDROID__|__linux__|RUX_HOST' \
    service scan dup compress request db control; then
    echo "the service's sources must be the same for a host and a device"
    failures=$((failures + 1))
fi
[ $checked -gt 100 ] || { echo "only $checked includes were found: this test is broken"; exit 1; }
[ $failures -eq 0 ] && echo "$checked includes, all where they may be"
exit $((failures > 0))
