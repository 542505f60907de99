#include "scan/walk.h"

#include <sys/stat.h>

#include "control/log.h"
#include "control/properties.h"
#include "platform/include/tavo_f2fs_io_extensions.h"
#include "scan/blocks.h"

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
        const std::string realPath = selection.exceptions.empty() ? "" : realPathOf(path);
        Judgement judgement = judge(path, realPath, selection);
        if (selection.known != nullptr) judgement.known = selection.known->find(path);
        calculateFileMD5(path, status, judgement, state.digests.findOrAdd(status, notComputed()),
                         state.pendingMembers);
        return 0;
    }

    Blocks blocks(stream, state.digests, selection);
    while (const Item* item = blocks.next()) {
        const Entry::Kind kind = item->entry.kind;
        if (getStopProp(kStopScan)) {
            RUX_LOGD("stop.");
            state.isStopped = true;
            blocks.leaveDirectory();  // the one above stops at its next entry
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

}  // namespace rux
