#include "f2fs_io/swap.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "android/log.h"
#include "f2fs_io/compare.h"

namespace android::host {
namespace {

// Rounds against somebody who renames files over the entry in a loop.
constexpr int kMaxUndo = 1000;

int exchangeNames(const Entry& entry, const std::string& swap) {
    const int directory = entry.directory.get();
    const char* name = entry.name.c_str();
    return renameat2(directory, swap.c_str(), directory, name, RENAME_EXCHANGE) == 0 ? 0 : errno;
}

// What has become of one of the two files since their exchange. They had the same content then.
enum State : unsigned {
    kAsItWas = 1,
    kStatusChanged = 2,  // of the outgoing file: owner, mode, times or attributes, nothing else
    kWritten = 4,        // or open for writing
    kUnknown = 8,        // of the outgoing file
    kReplaced = 16,      // of the incoming file: the entry leads elsewhere, or nowhere
    kAny = 31,
};

enum OtherName : unsigned { kNo = 1, kYes = 2, kEither = 3 };

enum class Outcome {
    Finish,    // the incoming file stays, and the swap name goes
    Undo,      // the outgoing file gets its name back
    KeepBoth,  // the incoming file stays, and the outgoing one under the swap name
};

/// What is right when. The first line that fits holds. What somebody has written never loses its
/// last name, and a change of status weighs less than anything written. `told` goes to the log.
struct Case {
    unsigned outgoing, incoming;            // their states
    unsigned outgoingOther, incomingOther;  // whether they have names beside these two
    Outcome outcome;
    const char* told;
};
constexpr Case kCases[] = {
        // outgoing          incoming   other names: of either
        {kAsItWas, kAny, kEither, kEither, Outcome::Finish, nullptr},
        {kAny, kReplaced, kEither, kEither, Outcome::Finish, nullptr},
        {kAny, kAsItWas, kEither, kEither, Outcome::Undo, nullptr},
        {kStatusChanged, kWritten, kEither, kEither, Outcome::Finish, nullptr},
        {kWritten | kUnknown, kWritten, kYes, kEither, Outcome::Finish, "has another name"},
        {kWritten | kUnknown, kWritten, kNo, kYes, Outcome::Undo, "gets this name back"},
        {kWritten | kUnknown, kWritten, kNo, kNo, Outcome::KeepBoth, "keeps a temporary name"},
};

const Case& caseOf(unsigned outgoing, unsigned incoming, bool outgoingOther, bool incomingOther) {
    const auto fits = [=](const Case& one) {
        return (one.outgoing & outgoing) != 0 && (one.incoming & incoming) != 0 &&
               (one.outgoingOther & (outgoingOther ? kYes : kNo)) != 0 &&
               (one.incomingOther & (incomingOther ? kYes : kNo)) != 0;
    };
    const Case* one = kCases;
    while (!fits(*one)) ++one;
    return *one;
}

/// The state of the incoming file. While the outgoing one has the content that both had, that
/// tells; else times do, which some programs set back to what they were before they wrote: so a
/// file without another name must not even have had its status changed.
State stateOfIncoming(const Replacement& replacement, bool isOutgoingIntact, bool* hasOtherName) {
    const Entry& entry = replacement.entry;
    const struct stat& before = replacement.incoming;
    struct stat st = {};
    LeasedFile file;
    const int error = entry.status(entry.name, &st);
    if (error == ENOENT || (error == 0 && idOf(st) != idOf(before))) return kReplaced;
    *hasOtherName = st.st_nlink > 1;
    if (file.openLeased(entry, entry.name) != 0 || file.id() != idOf(before)) return kWritten;
    const bool isAsItWas =
            isOutgoingIntact
                    ? file.status.st_size == before.st_size &&
                              compareBytes(replacement.outgoing.file.get(), file.file.get(),
                                           before.st_size, nullptr) == 0 &&
                              !file.isInUse()
                    : sameContentStamp(before, file.status) &&
                              (*hasOtherName ||
                               timeOf(before.st_ctim) == timeOf(file.status.st_ctim));
    return isAsItWas ? kAsItWas : kWritten;
}

/// The state of the outgoing file: while its lease holds nobody has written to it. `error` is why
/// it is not as it was.
State stateOfOutgoing(const LeasedFile& file, int* error) {
    *error = file.confirmLease();
    if (*error != 0) return *error == EBUSY ? kWritten : kUnknown;
    *error = file.compareWithNow();
    if (*error == 0) return kAsItWas;
    return *error == ESTALE ? kStatusChanged : kUnknown;
}

}  // namespace

int keepSwap(const Entry& entry, const std::string& swap, int error) {
    __android_log_print(ANDROID_LOG_ERROR, "tavo_f2fs_io", "kept %s%s beside %s: %d (%s)",
                        entry.parent.c_str(), swap.c_str(),
                        entry.name.empty() ? "a missing file" : entry.name.c_str(), error,
                        strerrordesc_np(error));
    return error;
}

int removeSwap(const Entry& entry, const std::string& swap) {
    if (unlinkat(entry.directory.get(), swap.c_str(), 0) == 0 || errno == ENOENT) return 0;
    return keepSwap(entry, swap, errno);
}

int exchange(const Replacement& replacement) {
    const Entry& entry = replacement.entry;
    const FileId incoming = idOf(replacement.incoming);
    const std::string& swap = entry.swapName();
    int error = entry.expect(entry.name, replacement.outgoing.id());
    if (error == 0) error = entry.expect(swap, incoming);
    if (error == 0) error = exchangeNames(entry, swap);
    if (error != 0) {
        // Nothing has happened, unless the file system says one thing and does another.
        if (entry.expect(swap, incoming) != 0) return keepSwap(entry, swap, error);
        removeSwap(entry, swap);
        return error == EINVAL || error == ENOSYS ? EOPNOTSUPP : error;
    }
    error = entry.expect(swap, replacement.outgoing.id());
    return error == 0 ? 0 : undo(entry, replacement.incoming, error);
}

/// When the name leads elsewhere by now, or nowhere, somebody has replaced or removed it: so it
/// stays, and the file that came out is as good as replaced. And what an exchange brings out must
/// be what the one before it put in. If it is not, somebody has renamed a file over the entry in
/// between; that file is the newest and goes back in its turn. Whatever cannot be found out, or
/// not be done, leaves the swap name there.
int undo(const Entry& entry, const struct stat& incoming, int why) {
    const std::string& swap = entry.swapName();
    FileId previous = idOf(incoming);
    struct stat st = {};
    const auto remove = [&] {
        const int error = removeSwap(entry, swap);
        return error != 0 ? error : why;
    };
    if (const int error = entry.status(swap, &st); error != 0) return keepSwap(entry, swap, error);
    FileId inHand = idOf(st);
    for (int round = 0; round < kMaxUndo; ++round) {
        const int named = entry.status(entry.name, &st);
        if (named != 0 && named != ENOENT) return keepSwap(entry, swap, named);
        if (named == ENOENT || idOf(st) != previous) return remove();
        if (const int error = exchangeNames(entry, swap); error != 0)
            return keepSwap(entry, swap, error);
        if (const int error = entry.status(swap, &st); error != 0)
            return keepSwap(entry, swap, error);
        if (idOf(st) == previous) {
            // Somebody may have opened the incoming file by this name, and it have no other.
            LeasedFile file;
            const bool isNeeded = previous == idOf(incoming) && st.st_nlink == 1 &&
                                  (file.openLeased(entry, swap) != 0 || file.id() != previous ||
                                   !sameContentStamp(incoming, file.status));
            return isNeeded ? keepSwap(entry, swap, EBUSY) : remove();
        }
        previous = inHand;
        inHand = idOf(st);
    }
    return keepSwap(entry, swap, EBUSY);
}

int conclude(Replacement& replacement) {
    const Entry& entry = replacement.entry;
    const std::string& swap = entry.swapName();
    struct stat st = {};
    const int named = entry.status(swap, &st);
    if (named == ENOENT) return 0;  // somebody has tidied up
    if (named == 0 && idOf(st) != replacement.outgoing.id()) return keepSwap(entry, swap, ESTALE);
    int error = named;
    const State outgoing = named == 0 ? stateOfOutgoing(replacement.outgoing, &error) : kUnknown;
    if (outgoing == kAsItWas) return removeSwap(entry, swap);

    bool incomingOther = false;
    const State incoming = stateOfIncoming(replacement, outgoing == kStatusChanged, &incomingOther);
    const Case& one = caseOf(outgoing, incoming, st.st_nlink > 1, incomingOther);
    if (one.told != nullptr) {
        __android_log_print(ANDROID_LOG_ERROR, "tavo_f2fs_io",
                            "%s%s and the file before it were both written to: that one %s",
                            entry.parent.c_str(), entry.name.c_str(), one.told);
    }
    switch (one.outcome) {
        case Outcome::Finish:
            return removeSwap(entry, swap);
        case Outcome::Undo:
            return undo(entry, replacement.incoming, error);
        case Outcome::KeepBoth:
            return keepSwap(entry, swap, error);
    }
    return error;
}

}  // namespace android::host
