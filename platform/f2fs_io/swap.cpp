#include "f2fs_io/swap.h"

#include <fcntl.h>
#include <unistd.h>
#include <cstdio>

#include <cerrno>

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

void removeSwap(const Entry& entry, const std::string& swap) {
    unlinkat(entry.directory.get(), swap.c_str(), 0);
}

/// Takes an exchange back that put `previous` under the entry's name.
///
/// When the name leads elsewhere by now, or nowhere, somebody has replaced or removed it: so it
/// stays, and the file that came out is as good as replaced. And what an exchange brings out must
/// be what the one before it put in. If it is not, somebody has renamed a file over the entry in
/// between; that file is the newest and goes back in its turn.
void undo(const Entry& entry, const std::string& swap, FileId previous) {
    struct stat st = {};
    if (entry.status(swap, &st) != 0) return;
    FileId inHand = idOf(st);
    for (int round = 0; round < kMaxUndo; ++round) {
        const bool isOurs = entry.status(entry.name, &st) == 0 && idOf(st) == previous;
        if (!isOurs || exchangeNames(entry, swap) != 0) return removeSwap(entry, swap);
        if (entry.status(swap, &st) != 0) return;
        if (idOf(st) == previous) return removeSwap(entry, swap);
        previous = inHand;
        inHand = idOf(st);
    }
}

}  // namespace

int exchange(const Entry& entry, const FileId& incoming, const FileId& outgoing,
             const ExchangeChecks& checks) {
    const std::string swap = entry.swapName();
    struct stat st = {};
    int error = entry.status(entry.name, &st);
    if (error == 0 && idOf(st) != outgoing) error = ESTALE;
    if (error == 0) error = exchangeNames(entry, swap);
    if (error != 0) {
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
        undo(entry, swap, incoming);
        return error;
    }
    removeSwap(entry, swap);
    return 0;
}

}  // namespace android::host
