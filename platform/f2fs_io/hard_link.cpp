#include <fcntl.h>
#include <linux/fs.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <utility>

#include "f2fs_io/compare.h"
#include "f2fs_io/directory.h"
#include "f2fs_io/durable.h"
#include "f2fs_io/entry.h"
#include "f2fs_io/hard_link.h"
#include "f2fs_io/leased_file.h"
#include "f2fs_io/pending.h"
#include "f2fs_io/stale_names.h"
#include "f2fs_io/swap.h"
#include "log/tool_log.h"
#include "tavo_f2fs_io.h"

namespace android::host {
namespace {

/// Opens the file that is to be kept. Where its name is a link, what that leads to is looked at
/// first: to open a device may do something; and the entry is left empty.
int openKept(const char* path, Entry* entry, LeasedFile* kept) {
    int error = entry->open(path);
    if (error == 0) error = entry->openFile(&kept->file, &kept->status);
    if (error != ELOOP) return error;
    base::unique_fd place;
    LinkMakers makers;
    struct stat st = {};
    if (error = resolve(path, &place, &makers); error != 0) return error;
    if (error = statusOfRegular(place, &st); error != 0) return error;
    if (!makers.mayLeadTo(st.st_uid)) return ELOOP;
    *entry = {};
    return openRegular(AT_FDCWD, ownPathOf(place.get()).c_str(), 0, &kept->file, &kept->status);
}

/// Whether the ways to both files are open to the same users. Fills the kept one's entry where it
/// is empty.
int compareWays(Entry* entry, const LeasedFile& kept, const Entry& other) {
    FileId first;
    FileId second;
    if (!entry->directory.ok()) {
        int error = entry->open(placeOf(kept.file.get()).c_str());
        if (error == 0) error = entry->expect(entry->name, kept.id());
        if (error != 0) return error;
    }
    if (idOf(entry->directoryStatus) == idOf(other.directoryStatus)) return 0;
    if (const int error = findPrivateDirectory(*entry, &first); error != 0) return error;
    if (const int error = findPrivateDirectory(other, &second); error != 0) return error;
    return first == second ? 0 : EACCES;
}

/// The mount on which an open file was found. A file gets names on that one alone.
uint64_t mountOf(const base::unique_fd& file) {
    struct statx status = {};
    statx(file.get(), "", AT_EMPTY_PATH, STATX_MNT_ID, &status);
    return status.stx_mnt_id;
}

/// Opens both files. 0, EALREADY for one file, or why the two cannot be one.
int openBoth(const char* keptPath, Replacement* replacement, Entry* keptEntry, LeasedFile* kept) {
    const Entry& entry = replacement->entry;
    LeasedFile& old = replacement->outgoing;
    if (const int error = entry.openFile(&old.file, &old.status); error != 0) return error;
    if (const int error = refuseFileSystem(entry.directory); error != 0) return error;
    if (const int error = openKept(keptPath, keptEntry, kept); error != 0) return error;
    if (kept->id() == old.id()) return EALREADY;
    if (kept->status.st_dev != old.status.st_dev || mountOf(kept->file) != mountOf(old.file))
        return EXDEV;
    return kept->status.st_size == old.status.st_size ? 0 : EILSEQ;
}

/// Keeps writers out of both files, and asks all that can be asked without their bytes. 0, or why
/// the two cannot be one.
int takeLeases(Replacement* replacement, Entry* keptEntry, LeasedFile* kept) {
    LeasedFile& old = replacement->outgoing;
    if (const int error = kept->takeLease(); error != 0) return error;
    if (const int error = old.takeLease(); error != 0) return error;
    if (!(kept->attributes == old.attributes)) return EBADE;
    const int flags = flagsOf(old.file.get());
    if (flagsOf(kept->file.get()) != flags) return EBADE;
    if (projectOf(kept->file.get()) != projectOf(old.file.get())) return EBADE;
    const bool isEncrypted = (flags & FS_ENCRYPT_FL) != 0;
    if (isEncrypted && encryptionOf(kept->file.get()) != encryptionOf(old.file.get())) return EBADE;
    // A restore could not give a copy the same.
    if (!old.attributes.canBeGiven() || (flags & kNotGivenFlags) != 0) return EPERM;
    return old.attributes.areOwnersAlone() ? 0 : compareWays(keptEntry, *kept, replacement->entry);
}

/// Has the disk read the beginnings of both, while other things are asked.
void prefetch(const LeasedFile& kept, const LeasedFile& old) {
    constexpr off_t kBytes = 128 << 10;
    for (const int file : {old.file.get(), kept.file.get()})
        posix_fadvise(file, 0, kBytes, POSIX_FADV_WILLNEED);
}

int compare(const LeasedFile& kept, const LeasedFile& old) {
    const auto interrupted = [&] { return kept.isInUse() || old.isInUse(); };
    return compareBytes(kept.file.get(), old.file.get(), old.status.st_size, interrupted);
}

/// Whether both are names of one file, with nothing under the swap name that could change that.
/// This spares opening the many links that were there before.
bool areOneFile(const char* keptPath, const Entry& entry) {
    struct stat st = {};
    struct stat kept = {};
    // The swap name first: until it is gone the link may be undone.
    return entry.status(entry.swapName(), &st) == ENOENT && entry.status(entry.name, &st) == 0 &&
           stat(keptPath, &kept) == 0 && idOf(kept) == idOf(st) && S_ISREG(st.st_mode) &&
           entry.makers.mayLeadTo(st.st_uid) && refuseFileSystem(entry.directory) == 0;
}

int linkDuplicate(const char* keptPath, const char* duplicatePath) {
    Replacement replacement;
    Entry& entry = replacement.entry;
    Entry keptEntry;
    LeasedFile kept;
    if (const int error = entry.open(duplicatePath); error != 0) return error;
    tidyOnce(entry);
    if (areOneFile(keptPath, entry)) return 0;
    int error = openBoth(keptPath, &replacement, &keptEntry, &kept);
    if (error == EALREADY) {  // one file already
        struct stat st = {};
        if (entry.status(entry.swapName(), &st) == 0) {
            if (joinPending(entry, duplicatePath)) return 0;
            if (error = removeStaleName(entry); error != 0) return error;
        }
        // What was done for that name may have been undone.
        const bool isOne = entry.expect(entry.name, kept.id()) == 0;
        return isOne ? 0 : linkDuplicate(keptPath, duplicatePath);
    }
    if (error == 0) prefetch(kept, replacement.outgoing);
    // First while nobody has to wait for it, then because somebody may have written meanwhile.
    if (error == 0) error = makeDurable(kept);
    if (error == 0) error = takeLeases(&replacement, &keptEntry, &kept);
    if (error == 0) error = makeDurable(kept);
    if (error == 0) error = compare(kept, replacement.outgoing);
    const auto asked = LeasedFile::Clock::now();
    if (error == 0) error = kept.undisturbed();
    if (error == 0) {
        noteUnfinished();
        error = entry.linkAsSwap(kept.file);
    }
    if (error == EEXIST && (error = removeStaleName(entry)) == 0)
        error = entry.linkAsSwap(kept.file);
    if (error != 0) return error;
    replacement.incoming = kept.status;
    if (error = exchange(replacement); error != 0) return error;
    // From the exchange on whoever opens the name for writing finds the kept file, linked, and
    // waits a moment: that is all right. But when this thread was held up for so long that the
    // kernel may have let a writer in by force, that one may have come before.
    if (LeasedFile::Clock::now() - asked > LeasedFile::kLeast) error = kept.undisturbed();
    if (error != 0) return undo(entry, replacement.incoming, error);
    noteLinked(kept);
    addPending(std::move(replacement), duplicatePath);
    return 0;
}

}  // namespace
}  // namespace android::host

int32_t createHardLink(const char* keptPath, const char* duplicatePath, bool enableLog) {
    const int32_t code = android::host::linkDuplicate(keptPath, duplicatePath);
    android::host::logTool(enableLog, "createHardLink", duplicatePath, code);
    return code;
}

int32_t checkHardLink(const char* keptPath, const char* duplicatePath, bool comparesBytes) {
    using namespace android::host;
    Replacement replacement;
    Entry keptEntry;
    LeasedFile kept;
    if (const int error = replacement.entry.open(duplicatePath); error != 0) return error;
    const int directory = replacement.entry.directory.get();
    if (faccessat(directory, ".", W_OK, AT_EACCESS) != 0) return errno;
    int error = openBoth(keptPath, &replacement, &keptEntry, &kept);
    if (error == EALREADY) return 0;
    if (error == 0) error = takeLeases(&replacement, &keptEntry, &kept);
    return error == 0 && comparesBytes ? compare(kept, replacement.outgoing) : error;
}
