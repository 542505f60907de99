#include "compress/restore_request.h"

#include <algorithm>
#include <cstdint>
#include <future>
#include <map>
#include <string>
#include <unordered_set>
#include <vector>

#include "control/busy.h"
#include "control/log.h"
#include "control/parallel.h"
#include "control/properties.h"
#include "db/images.h"
#include "db/json_text.h"
#include "db/records.h"
#include "db/space.h"
#include "platform/include/tavo_f2fs_io_extensions.h"
#include "request/patterns.h"
#include "request/rules.h"
#include "tavo_f2fs_io.h"

namespace rux {
namespace {

constexpr size_t kBlock = 8192;  // paths that are restored in one go
constexpr size_t kMostThreads = 4;

void load(const std::string& SpaceID_DBPath) {
    DBReaderInit(SpaceID_DBPath, false, false, true, true);
}
void save(const std::string& SpaceID_DBPath) {
    DBWriteUpdate(SpaceID_DBPath, false, false, true, true);
}

/// Whether one of the paths matches a pattern and one of them, maybe another, contains `fragment`.
bool isSelected(const Json::Value& paths, const std::string& fragment,
                const PatternList& patterns) {
    bool matched = false;
    bool contained = false;
    for (const Json::Value& entry : paths) {
        const std::string path = pathOf(entry);
        contained = contained || path.find(fragment) != std::string::npos;
        matched = matched || patterns.matches(path);
        if (matched && contained) return true;
    }
    return false;
}

/// The digests of the groups of the loaded space that are selected; an empty one counts as such.
std::vector<std::string> selectGroups(const std::string& fragment, const PatternList& patterns) {
    std::vector<std::string> digests;
    if (!checkACompressDB->isObject()) return digests;
    for (auto group = checkACompressDB->begin(); group != checkACompressDB->end(); ++group) {
        const Json::Value* paths = groupPaths(*group);
        std::string digest = group.name();
        if (digest.empty() || (paths != nullptr && isSelected(*paths, fragment, patterns)))
            digests.push_back(std::move(digest));
    }
    return digests;
}

/// Groups whose files are being restored, in one go.
struct Block {
    size_t end = 0;  // the group behind the last
    std::future<void> work;
};

/// Begins with the files of the groups from `first` on, as many as are worth it; each group is done
/// by one of several threads.
Block beginBlock(const std::vector<std::string>& digests, size_t first) {
    Block block;
    if (restoreLinkFiles == nullptr) return {digests.size(), {}};
    std::vector<std::vector<std::string>> parts(std::min(processors(), kMostThreads));
    std::unordered_set<std::string> taken;  // no two threads restore the same file
    size_t count = 0;
    for (block.end = first; block.end < digests.size() && count < kBlock; ++block.end) {
        const Json::Value* paths = groupPaths((*checkACompressDB)[digests[block.end]]);
        if (digests[block.end].empty() || paths == nullptr) continue;
        count += paths->size();
        for (const Json::Value& entry : *paths) {
            const std::string path = pathOf(entry);
            if (taken.insert(path).second) parts[block.end % parts.size()].push_back(path);
        }
    }
    block.work = std::async([parts = std::move(parts)] {
        inParallel(parts.size(), [&parts](size_t part) { restoreLinkFiles(parts[part]); });
    });
    return block;
}

/// Restores the groups of the loaded space that are selected, and adds their bytes to `restored`.
void restoreFile(const std::string& fragment, const PatternList& patterns, int64_t& restored) {
    const std::vector<std::string> digests = selectGroups(fragment, patterns);
    size_t ready = 0;
    Block next = beginBlock(digests, 0);
    for (size_t i = 0; i < digests.size(); ++i) {
        if (i == ready) {
            if (next.work.valid()) next.work.get();
            ready = next.end;
            next = beginBlock(digests, ready);
        }
        const std::string& digest = digests[i];
        if (digest.empty()) {
            RUX_LOGD("md5 is empty");
            continue;
        }
        const Json::Value& group = (*checkACompressDB)[digest];
        const Json::Value& paths = *groupPaths(group);
        restored = addBytes(restored, groupFileBytes(group), int64_t{paths.size()} - 1);
        RUX_LOGD("restore file md5 group %s", digest.c_str());
        for (const Json::Value& entry : paths) {
            const std::string path = pathOf(entry);
            RUX_LOGD("restoreLinkFile path: %s.", path.c_str());
            const int32_t code = restoreLinkFile(path.c_str(), toolLogEnabled);
            if (code != 0) {
                RUX_LOGE("restoreLinkFile fail, error code %d", code);
            } else {
                RUX_LOGD("restoreLinkFile success");
            }
            markModified(path, Mark::Restored);
        }
        takeMember(checkACompressDB.change(), digest);
    }
}

}  // namespace

int64_t Rux_restoreDuplicateFilesImp(const std::string& request) {
    if (isAnyBusy()) {
        RUX_LOGD("the Compress has been started,return");
        return 0;
    }
    std::vector<SpaceRule> rules;
    if (!readSpaceRules(request, rules)) {
        RUX_LOGE("getDuplicateFilesRules analysis fail");
        return 0;
    }
    const BusyGuard busy(Operation::Restore);
    if (!busy.admitted()) {  // another was admitted while the request was read
        RUX_LOGD("the Compress has been started,return");
        return 0;
    }
    isEnableToolLog();
    int64_t restored = 0;
    for (const SpaceRule& rule : rules) {
        if (rule.id != SpaceRule::Id::Given) {
            RUX_LOGE("comDupFileRules Incorrect format");
            continue;
        }
        const std::string SpaceID_DBPath = spaceDirectory(rule.spaceId);
        if (!pathExists(SpaceID_DBPath)) {
            RUX_LOGE("the space id DB path is not access");
            continue;
        }
        load(SpaceID_DBPath);
        const PatternList patterns(rule.patterns);
        if (rule.hasUnusablePlaces) {
            RUX_LOGE("the dirs of the rule hold no text, no group is selected");
        } else if (!rule.places || rule.places->empty()) {
            restoreFile("", patterns, restored);
        } else {
            for (const std::string& fragment : *rule.places)
                restoreFile(fragment, patterns, restored);
        }
        if (settleLinks != nullptr) settleLinks(true);
        save(SpaceID_DBPath);
    }
    return restored;
}

}  // namespace rux
