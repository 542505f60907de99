# Installs the Debian packages that the given names stand for, those that are missing only.
# Sourced by the other scripts.

# install_packages NAME...
install_packages() {
    local missing=() name native architecture
    native=$(dpkg --print-architecture)
    for name in "$@"; do
        # Another architecture's package of the same name is not this one.
        architecture=$native
        [[ $name == *:* ]] && architecture=${name#*:}
        dpkg-query -W -f '${db:Status-Status} ${Architecture}\n' "$name" 2>/dev/null |
            grep -qxE "installed (all|$architecture)" || missing+=("$name")
    done
    [ ${#missing[@]} -eq 0 ] && return 0
    echo "Installing Debian packages: ${missing[*]}"
    as_root apt-get update -qq &&
        as_root env DEBIAN_FRONTEND=noninteractive apt-get install -y -qq \
            --no-install-recommends "${missing[@]}" >/dev/null
}

# as_root COMMAND...
as_root() {
    if [ "$(id -u)" -eq 0 ]; then
        "$@"
    elif command -v sudo >/dev/null; then
        sudo "$@"
    else
        echo "root or sudo is needed for: $*" >&2
        return 1
    fi
}

build_packages=(g++ cmake ninja-build libjsoncpp-dev libssl-dev libjemalloc-dev libcli11-dev libpcre2-dev)
test_packages=(libgtest-dev python3 findutils coreutils libcap2-bin e2fsprogs xfsprogs strace aidl checkpolicy
               m4 man-db android-libbase-dev android-liblog-dev android-libutils-dev)
