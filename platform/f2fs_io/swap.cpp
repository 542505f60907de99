#include "f2fs_io/swap.h"

#include <fcntl.h>
#include <unistd.h>
#include <cstdio>

#include <cerrno>
#include <cstring>

#include "android/log.h"

namespace android::host {
namespace {

constexpr int kMaxUndo =
        1000;  // rounds against somebody who renames files over the entry in a loop

int exchangeNames(const Entry& entry, const std::string& swap) {
    const int directory = entry.directory.get();
    return renameat2(directory, swap.c_str(), directory, entry.name.c_str(), RENAME_EXCHANGE) == 0
                   ? 0
                   : errno;
}

/// Leaves the file under the swap name where it is: it may be the last name of what somebody is
/// writing. The next call on the entry looks at it again.
int keep(const Entry& entry, const std::string& swap, int error) {
    __android_log_print(ANDROID_LOG_ERROR, "tavo_f2fs_io", "kept %s%s beside %s: %d (%s)",
                        entry.parent.c_str(), swap.c_str(), entry.name.c_str(), error,
                        strerrordesc_np(error));
    return error;
}

/// Removes the swap name, whose file is known not to be needed. 0 or an errno.
int removeSwap(const Entry& entry, const std::string& swap) {
    if (unlinkat(entry.directory.get(), swap.c_str(), 0) == 0 || errno == ENOENT) return 0;
    return keep(entry, swap, errno);
}

/// Whether the incoming file lies under `name`, as it was, and nobody writes to it.
bool isIncomingAsItWas(const Replacement& replacement, const std::string& name) {
    LeasedFile file;
    return openRegular(replacement.entry.directory.get(), name.c_str(), O_NOFOLLOW, &file.file,
                       &file.status) == 0 &&
           file.takeLease() == 0 && file.id() == idOf(replacement.incoming) &&
           sameContentStamp(replacement.incoming, file.status) &&
           file.attributes == replacement.outgoing.attributes;
}

/// Takes an exchange back that put the incoming file under the entry's name.
///
/// When the name leads elsewhere by now, or nowhere, somebody has replaced or removed it: so it
/// stays, and the file that came out is as good as replaced. And what an exchange brings out must
/// be what the one before it put in. If it is not, somebody has renamed a file over the entry in
/// between; that file is the newest and goes back in its turn. Whatever cannot be found out, or
/// not be done, leaves the swap name there.
int undo(const Replacement& replacement, const std::string& swap) {
    const Entry& entry = replacement.entry;
    FileId previous = idOf(replacement.incoming);
    struct stat st = {};
    if (const int error = entry.status(swap, &st); error != 0) return keep(entry, swap, error);
    FileId inHand = idOf(st);
    for (int round = 0; round < kMaxUndo; ++round) {
        const int named = entry.status(entry.name, &st);
        if (named != 0 && named != ENOENT) return keep(entry, swap, named);
        if (named == ENOENT || idOf(st) != previous) return removeSwap(entry, swap);
        if (const int error = exchangeNames(entry, swap); error != 0)
            return keep(entry, swap, error);
        if (const int error = entry.status(swap, &st); error != 0) return keep(entry, swap, error);
        if (idOf(st) == previous) {
            // Somebody may have opened the incoming file by this name, and it have no other.
            const bool isNeeded = previous == idOf(replacement.incoming) && st.st_nlink == 1 &&
                                  !isIncomingAsItWas(replacement, swap);
            return isNeeded ? keep(entry, swap, EBUSY) : removeSwap(entry, swap);
        }
        previous = inHand;
        inHand = idOf(st);
    }
    return keep(entry, swap, EBUSY);
}

}  // namespace

int exchange(const Replacement& replacement) {
    const Entry& entry = replacement.entry;
    const FileId incoming = idOf(replacement.incoming);
    const std::string swap = entry.swapName();
    struct stat st = {};
    int error = entry.status(entry.name, &st);
    if (error == 0 && idOf(st) != replacement.outgoing.id()) error = ESTALE;
    if (error == 0) error = entry.status(swap, &st);
    if (error == 0 && idOf(st) != incoming) error = ESTALE;
    if (error == 0) error = exchangeNames(entry, swap);
    if (error != 0) {
        // Nothing has happened, unless the file system says one thing and does another.
        const bool isIncoming = entry.status(swap, &st) == 0 && idOf(st) == incoming;
        if (!isIncoming) return keep(entry, swap, error);
        removeSwap(entry, swap);
        return error == EINVAL || error == ENOSYS ? EOPNOTSUPP : error;
    }
    error = entry.status(swap, &st);
    if (error == 0 && idOf(st) != replacement.outgoing.id()) error = ESTALE;
    if (error == 0) return 0;
    const int undone = undo(replacement, swap);
    return undone != 0 ? undone : error;
}

int conclude(Replacement& replacement) {
    const Entry& entry = replacement.entry;
    const std::string swap = entry.swapName();
    struct stat st = {};
    int error = entry.status(swap, &st);
    if (error == ENOENT) return 0;  // somebody has tidied up
    if (error == 0 && idOf(st) != replacement.outgoing.id()) return keep(entry, swap, ESTALE);
    if (error == 0) {
        error = replacement.outgoing.lease.renew();
        if (error == 0) error = replacement.outgoing.undisturbed();
        // A file with another name is not lost with this one, while the other might be.
        if (error != 0 && st.st_nlink > 1 && !isIncomingAsItWas(replacement, entry.name)) error = 0;
    }
    if (error == 0) return removeSwap(entry, swap);
    const int undone = undo(replacement, swap);
    return undone != 0 ? undone : error;
}

}  // namespace android::host
