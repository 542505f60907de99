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

/// Takes an exchange back that put `previous` under the entry's name.
///
/// When the name leads elsewhere by now, or nowhere, somebody has replaced or removed it: so it
/// stays, and the file that came out is as good as replaced. And what an exchange brings out must
/// be what the one before it put in. If it is not, somebody has renamed a file over the entry in
/// between; that file is the newest and goes back in its turn. Whatever cannot be found out, or
/// not be done, leaves the swap name there.
int undo(const Entry& entry, const std::string& swap, FileId previous) {
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
        if (idOf(st) == previous) return removeSwap(entry, swap);
        previous = inHand;
        inHand = idOf(st);
    }
    return keep(entry, swap, EBUSY);
}

}  // namespace

int exchange(const Entry& entry, const FileId& incoming, const FileId& outgoing,
             const ExchangeChecks& checks) {
    const std::string swap = entry.swapName();
    struct stat st = {};
    int error = entry.status(entry.name, &st);
    if (error == 0 && idOf(st) != outgoing) error = ESTALE;
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
    if (error == 0 && idOf(st) != outgoing) error = ESTALE;
    if (error == 0) {
        error = checks.outgoing();
        // A file with another name is not lost with this one, while the other might be.
        if (error != 0 && st.st_nlink > 1 && checks.incomingInUse()) error = 0;
    }
    if (error != 0) {
        const int undone = undo(entry, swap, incoming);
        return undone != 0 ? undone : error;
    }
    return removeSwap(entry, swap);
}

}  // namespace android::host
