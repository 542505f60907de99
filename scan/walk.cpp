#include "scan/walk.h"

#include <sys/stat.h>

#include "control/log.h"
#include "control/properties.h"
#include "platform/include/tavo_f2fs_io_extensions.h"
#include "scan/entry_stream.h"
#include "scan/fingerprint.h"

namespace rux {
namespace {

/// Takes up a starting path that is a file itself.
void takeSingleFile(const std::string& path, const struct stat& st, const PatternList& regs,
                    const PatternList& blackList, Preparation& preparation) {
    KnownFiles& knownFiles = preparation.knownFiles;
    const auto digest = [&] {
        FileMD5Result result = {};
        const KnownFiles::Claim claim = knownFiles.claim(st);
        if (claim == KnownFiles::Claim::Others) {
            knownFiles.take(st, &result);  // no worker has anything in hand between the walks
            return result;
        }
        result = computeFileMD5(path.c_str(), toolLogEnabled);
        if (claim == KnownFiles::Claim::Ours) knownFiles.settle(st, result);
        return result;
    };
    const std::string realPath = blackList.empty() ? "" : realPathOf(path);
    calculateFileMD5(path, "", st, judge(path, realPath, regs, blackList), digest,
                     preparation.pendingMembers);
}

/// Removes stale temporary names from a directory, which takes a look at all of it. A second such
/// name that the same request meets there changes nothing.
void removeOnce(const std::string& directory, Preparation& preparation) {
    if (removeStaleNames != nullptr && preparation.tidied.insert(directory).second)
        removeStaleNames(directory.c_str());
}

}  // namespace

int scanSpaceID(const std::string& path, const PatternList& regs, const PatternList& blackList,
                Preparation& preparation) {
    const bool nameable = path.find('\0') == std::string::npos;
    EntryStream stream(nameable ? path : "", !blackList.empty());
    if (!stream.isOpen()) {
        struct stat st = {};
        if (!nameable || stat(path.c_str(), &st) != 0) {
            RUX_LOG(ANDROID_LOG_ERROR, ":stat", "The directory cannot be opened.");
            return -1;
        }
        if (S_ISDIR(st.st_mode) || st.st_size == 0) {
            RUX_LOG(ANDROID_LOG_ERROR, ":opendir", "The directory cannot be opened.");
            return -1;
        }
        takeSingleFile(path, st, regs, blackList, preparation);
        return 0;
    }

    Window window(stream, preparation, regs, blackList);
    size_t depth = 1;  // of the directory whose entries have their turn
    for (const Entry* entry = window.next(); entry != nullptr; entry = window.next()) {
        if (entry->kind == Entry::Kind::End) {
            --depth;
            window.pop();
            continue;
        }
        if (getStopProp(kStopScan)) {
            RUX_LOGD("stop.");
            window.leaveDirectory(depth);  // the one above reads its next entry and stops there in
            --depth;                       // its turn
            continue;
        }
        switch (entry->kind) {
            case Entry::Kind::Dot:
            case Entry::Kind::End:
            case Entry::Kind::Unknown:
                break;
            case Entry::Kind::Directory:
                ++depth;
                break;
            case Entry::Kind::Unreadable:
                RUX_LOG(ANDROID_LOG_ERROR, ":stat", "The directory cannot be opened.");
                break;
            case Entry::Kind::Unopenable:
                RUX_LOG(ANDROID_LOG_ERROR, ":opendir", "The directory cannot be opened.");
                break;
            case Entry::Kind::File:
                if (window.judgement().need == Need::StaleName)
                    removeOnce(entry->path.substr(0, entry->nameStart - 1), preparation);
                calculateFileMD5(
                        entry->path, std::string_view(entry->path).substr(entry->nameStart),
                        window.status(), window.judgement(), [&window] { return window.digest(); },
                        preparation.pendingMembers);
                break;
        }
        window.pop();
    }
    return 0;
}

}  // namespace rux
