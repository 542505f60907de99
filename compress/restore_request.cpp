#include "compress/restore_request.h"

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "control/busy.h"
#include "control/log.h"
#include "control/properties.h"
#include "db/images.h"
#include "db/json_text.h"
#include "db/records.h"
#include "db/space.h"
#include "request/patterns.h"
#include "request/rules.h"
#include "tavo_f2fs_io.h"

/// Returns when all files that `restoreLinkFile` has copied are restored. An extension: where the
/// platform's library has none, the address is null.
[[gnu::weak]] std::map<std::string, int32_t> settleLinks();

namespace rux {
namespace {

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

/// Restores the groups of the loaded space that are selected, and adds their bytes to `restored`.
void restoreFile(const std::string& fragment, const PatternList& patterns, int64_t& restored) {
    if (!checkACompressDB->isObject()) return;
    for (const std::string& digest : checkACompressDB->getMemberNames()) {
        if (digest.empty()) {
            RUX_LOGD("md5 is empty");
            continue;
        }
        const Json::Value& group = (*checkACompressDB)[digest];
        const Json::Value* paths = groupPaths(group);
        if (paths == nullptr || !isSelected(*paths, fragment, patterns)) continue;

        restored = addBytes(restored, groupFileBytes(group), int64_t{paths->size()} - 1);
        RUX_LOGD("restore file md5 group %s", digest.c_str());
        for (const Json::Value& entry : *paths) {
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
        if (settleLinks != nullptr) settleLinks();
        save(SpaceID_DBPath);
    }
    return restored;
}

}  // namespace rux
