#include "scan/walk.h"

#include <sys/stat.h>

#include <cstdint>
#include <utility>

#include "control/log.h"
#include "control/properties.h"
#include "platform/include/tavo_f2fs_io_extensions.h"

namespace rux {
namespace {

/// Takes up a file that the walk has met.
void takeFile(const Item& item, ScanState& state) {
    const std::string& path = item.entry.path;
    if (item.judgement.need == Need::StaleName && removeStaleNames != nullptr) {
        // That looks at the whole directory, so once a request is enough.
        const std::string directory = path.substr(0, path.rfind('/'));
        if (state.tidied.insert(directory).second) removeStaleNames(directory.c_str());
    }
    calculateFileMD5(path, item.status, item.judgement, item.digest, state.pendingMembers);
}

/// Takes up a starting path that is a file.
void takeStart(const std::string& path, const struct stat& status, const Selection& selection,
               ScanState& state) {
    const std::string realPath = selection.exceptions.empty() ? "" : realPathOf(path);
    Item item;
    item.entry.path = path;
    item.entry.kind = Entry::Kind::File;
    item.status = status;
    item.judgement = judge(path, realPath, selection);
    if (selection.known != nullptr) item.judgement.known = selection.known->find(path);
    if (item.isPostponed(selection.reach)) return state.postponed.add(std::move(item));
    calculateFileMD5(path, status, item.judgement, state.digests.findOrAdd(status, notComputed()),
                     state.pendingMembers);
}

}  // namespace

int scanSpaceID(const std::string& path, const Selection& selection, ScanState& state) {
    EntryStream stream(path, selection.reach, !selection.exceptions.empty());
    if (!stream.isOpen()) {
        struct stat status = {};
        if (path.find('\0') != std::string::npos || stat(path.c_str(), &status) != 0) {
            RUX_LOG(ANDROID_LOG_ERROR, ":stat", "The directory cannot be opened.");
            return -1;
        }
        const Entry::Kind kind = kindOf(status, selection.reach);
        if (kind == Entry::Kind::Skipped) return 0;
        if (kind != Entry::Kind::File) {
            RUX_LOG(ANDROID_LOG_ERROR, ":opendir", "The directory cannot be opened.");
            return -1;
        }
        takeStart(path, status, selection, state);
        return 0;
    }

    Blocks blocks(stream, state.digests, selection);
    while (const Item* item = blocks.next()) {
        const Entry::Kind kind = item->entry.kind;
        if (getStopProp(kStopScan)) {
            RUX_LOGD("stop.");
            state.isStopped = true;
            blocks.leaveDirectory();  // the one above stops at its next entry
        } else if (item->isPostponed(selection.reach)) {
            state.postponed.add(*item);
        } else if (kind == Entry::Kind::File) {
            takeFile(*item, state);
        } else if (kind == Entry::Kind::Unreadable) {
            RUX_LOG(ANDROID_LOG_ERROR, ":stat", "The directory cannot be opened.");
        } else if (kind != Entry::Kind::Directory && kind != Entry::Kind::Skipped) {
            RUX_LOG(ANDROID_LOG_ERROR, ":opendir", "The directory cannot be opened.");
        }
    }
    return 0;
}

void scanPostponed(const Selection& selection, ScanState& state) {
    if (state.isStopped || state.postponed.empty()) return;
    Reach reach = selection.reach;
    reach.loneBytes = UINT64_MAX;  // so that nothing is postponed again
    const Selection alike{selection.regs, selection.exceptions, reach, selection.known};
    Block next = state.postponed.takeAlike(selection.known != nullptr);
    state.isStopped = getStopProp(kStopScan);
    while (!next.empty() && !state.isStopped) {
        BlockReader reader(std::exchange(next, {}), processors(), alike, state.digests);
        for (const Item& item : reader.finish(next)) {
            state.isStopped = getStopProp(kStopScan);
            if (state.isStopped) break;
            if (item.entry.kind == Entry::Kind::File) takeFile(item, state);
        }
    }
    if (state.isStopped) RUX_LOGD("stop.");
}

}  // namespace rux
