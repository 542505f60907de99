#include "scan/scan_request.h"

#include <sys/stat.h>

#include <vector>

#include "android-base/properties.h"
#include "control/busy.h"
#include "control/log.h"
#include "control/properties.h"
#include "db/files.h"
#include "db/images.h"
#include "db/json_text.h"
#include "db/records.h"
#include "db/space.h"
#include "request/patterns.h"
#include "request/rules.h"
#include "scan/walk.h"

namespace rux {
namespace {

void save(const std::string& SpaceID_DBPath) {
    DBWriteUpdate(SpaceID_DBPath, true, true, false, true);
}

/// Begins with a rule whose space is loaded.
void begin(SpaceRule& rule, const std::string& SpaceID_DBPath, ScanState& state) {
    if (state.databaseFiles.empty()) state.databaseFiles = databaseFiles();
    addFiles(SpaceID_DBPath, state.databaseFiles);
    rule.reach.excluded = &state.databaseFiles;
    state.known.reset();
    if (rule.refreshes) {
        DBReaderInit(SpaceID_DBPath, false, false, true, false);
        state.known.emplace();
    }
    state.pendingMembers = PendingMembers(state.knownPaths());
    state.postponed = {};
    state.isStopped = false;
}

/// Ends with the rule, and saves.
void end(const SpaceRule& rule, const std::string& SpaceID_DBPath, ScanState& state) {
    state.pendingMembers.enter();
    if (state.known)
        state.known->removeStale(state.isStopped ? std::vector<std::string>() : *rule.places);
    save(SpaceID_DBPath);
}

/// The exception rules; none when their file is missing or cannot be read.
std::vector<std::string> getExceptRiles() {
    const std::string path = exceptRulesPath();
    if (!pathExists(path)) return {};
    const std::optional<std::string> text = readWholeFile(path);
    if (!text) {
        RUX_LOGE("the except file open fail");
        return {};
    }
    Json::Value rules;
    if (!parseJson(*text, rules)) {
        RUX_LOGE("the except rules analysis fail");
        return {};
    }
    return stringsOf(rules);
}

}  // namespace

void Rux_scanDuplicateFilesImp(const std::string& scanRules) {
    const BusyGuard busy(Operation::Scan);
    if (!busy.admitted()) {
        RUX_LOGD("the scan has been started");
        return;
    }
    android::base::SetProperty(kStopScan, "false");
    std::vector<SpaceRule> rules;
    if (!readSpaceRules(scanRules, rules)) {
        RUX_LOGE("scan rules analysis fail");
        return;
    }
    isEnableToolLog();
    const PatternList exceptions(getExceptRiles());
    ScanState state;

    std::string SpaceID_DBPath;  // of the space whose images are loaded; empty before there is one
    for (SpaceRule& rule : rules) {
        if (rule.id == SpaceRule::Id::Given) {
            SpaceID_DBPath = spaceDirectory(rule.spaceId);
            if (!pathExists(SpaceID_DBPath) && mkdir(SpaceID_DBPath.c_str(), 0755) != 0) {
                RUX_LOGE("scan rules mkdir SpaceID_DBPath fail");
                SpaceID_DBPath.clear();
                continue;
            }
            DBReaderInit(SpaceID_DBPath, true, true, false, true);
        } else {
            RUX_LOGD("scanRules Incorrect format");
            if (rule.id == SpaceRule::Id::Malformed) SpaceID_DBPath.clear();
            if (SpaceID_DBPath.empty()) continue;
        }
        if (rule.patterns.empty()) continue;
        if (!rule.places || rule.places->empty()) {
            RUX_LOGE("scanRules Incorrect format");
            save(SpaceID_DBPath);
            continue;
        }
        begin(rule, SpaceID_DBPath, state);
        const PatternList patterns(rule.patterns);
        const Selection selection{patterns, exceptions, rule.reach, state.knownPaths()};
        for (const std::string& path : *rule.places) {
            if (getStopProp(kStopScan)) {
                RUX_LOGD("stop.");
                state.isStopped = true;
                end(rule, SpaceID_DBPath, state);
                return;
            }
            if (scanSpaceID(path, selection, state) != 0) RUX_LOGE("scanSpaceID fail");
        }
        scanPostponed(selection, state);
        end(rule, SpaceID_DBPath, state);
    }
}

}  // namespace rux
