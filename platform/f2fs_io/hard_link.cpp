#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <memory>
#include <utility>

#include "f2fs_io/compare.h"
#include "f2fs_io/entry.h"
#include "f2fs_io/hard_link.h"
#include "f2fs_io/leased_file.h"
#include "f2fs_io/leftovers.h"
#include "f2fs_io/line.h"
#include "f2fs_io/swap.h"
#include "f2fs_io/tool_log.h"
#include "tavo_f2fs_io.h"

namespace android::host {
namespace {

/// Opens the file that is to be kept. Where links lead to it, it is looked at first: to open a
/// device may do something.
int openKept(const char* path, LeasedFile* kept) {
    const int flags = O_RDONLY | O_NONBLOCK | O_NOCTTY | O_NOATIME;
    int error = openWithoutLinks(path, flags, &kept->file);
    if (error == ELOOP) {
        UniqueFd place;
        LinkMakers makers;
        struct stat st = {};
        if (error = resolve(path, &place, &makers); error != 0) return error;
        if (error = statusOfRegular(place, &st); error != 0) return error;
        if (!makers.mayLeadTo(st.st_uid)) return ELOOP;
        error = openToRead(AT_FDCWD, ownPathOf(place.get()).c_str(), 0, &kept->file);
    }
    return error == 0 ? statusOfRegular(kept->file, &kept->status) : error;
}

/// Opens both files, keeps writers out of them, and asks all that can be asked without their bytes.
/// 0, EALREADY for one file, or why the two cannot be one.
int prepare(const char* keptPath, Replacement* replacement, LeasedFile* kept) {
    LeasedFile& old = replacement->outgoing;
    if (const int error = replacement->entry.openFile(&old.file, &old.status); error != 0)
        return error;
    if (const int error = openKept(keptPath, kept); error != 0) return error;
    if (kept->id() == old.id()) return EALREADY;
    if (kept->status.st_dev != old.status.st_dev) return EXDEV;
    if (kept->status.st_size != old.status.st_size) return EILSEQ;

    if (const int error = kept->takeLease(); error != 0) return error;
    if (const int error = old.takeLease(); error != 0) return error;
    if (!(kept->attributes == old.attributes)) return EBADE;
    if (flagsOf(kept->file.get()) != flagsOf(old.file.get())) return EBADE;
    return old.attributes.canBeGiven() ? 0 : EPERM;  // as a restore would have to
}

int compare(const LeasedFile& kept, const LeasedFile& old) {
    const auto interrupted = [&] { return kept.isInUse() || old.isInUse(); };
    return compareBytes(kept.file.get(), old.file.get(), old.status.st_size, interrupted);
}

int linkDuplicate(const char* keptPath, const char* duplicatePath) {
    auto replacement = std::make_unique<Replacement>();
    Entry& entry = replacement->entry;
    LeasedFile kept;
    replacement->path = duplicatePath;
    if (const int error = entry.open(duplicatePath); error != 0) return error;
    tidyOnce(entry);
    int error = prepare(keptPath, replacement.get(), &kept);
    // One file already; a call that was killed right after the exchange may have left the other
    // one.
    if (error == EALREADY) return isBeingLinked(entry) ? 0 : removeLeftovers(entry);
    if (error == 0) error = compare(kept, replacement->outgoing);
    if (error == 0) error = kept.undisturbed();
    if (error == 0) error = entry.linkAsSwap(kept.file);
    if (error == EEXIST && (error = removeLeftovers(entry)) == 0)
        error = entry.linkAsSwap(kept.file);
    if (error != 0) return error;
    // From the exchange on whoever opens the name finds the kept file, linked: that is all right.
    // Only the old file must be left alone to its end.
    replacement->incoming = kept.status;
    if (error = exchange(*replacement); error == 0) standInLine(std::move(replacement));
    return error;
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
    LeasedFile kept;
    if (const int error = replacement.entry.open(duplicatePath); error != 0) return error;
    const int directory = replacement.entry.directory.get();
    if (faccessat(directory, ".", W_OK, AT_EACCESS) != 0) return errno;
    const int error = prepare(keptPath, &replacement, &kept);
    if (error == EALREADY) return 0;
    return error == 0 && comparesBytes ? compare(kept, replacement.outgoing) : error;
}
