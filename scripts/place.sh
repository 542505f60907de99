# Sets TMPDIR to a directory where files can be linked: on an overlay, which a container has, they are left alone.
# Sourced by the other scripts.
for TMPDIR in "${TMPDIR:-/tmp}" /var/tmp /dev/shm; do
    case $(stat -f -c %T "$TMPDIR") in
        overlayfs | fuse*) ;;
        *) break ;;
    esac
done
export TMPDIR
