#include "dup/grouping.h"

#include <sys/stat.h>

#include <algorithm>
#include <vector>

#include "control/log.h"
#include "control/properties.h"
#include "db/images.h"
#include "db/json_text.h"
#include "db/records.h"

namespace rux {
namespace {

/// Adds a group with `matches` matching members. `st` is the status of its first file, whose link
/// count says how many of the members share its data already.
void count(const std::string& digest, int32_t matches, const struct stat& st, DupCounts& counts) {
    if (!counts.counted.insert(digest).second) return;
    counts.sameMD5GroupCount += 1;
    counts.dupFileCount += matches;
    const int64_t copies = std::max<int64_t>(0, matches - static_cast<int64_t>(st.st_nlink));
    counts.canCompressSize = addBytes(counts.canCompressSize, st.st_size, copies);
}

}  // namespace

void readDupFiles(const PatternList& patterns, DupCounts& counts) {
    if (!checkNoCompressDB->isObject()) return;
    std::vector<std::string> retired;
    for (auto group = checkNoCompressDB->begin(); group != checkNoCompressDB->end(); ++group) {
        const std::string digest = group.name();
        const Json::Value* paths = groupPaths(*group);
        if (digest.empty() || paths == nullptr || paths->size() < 2) continue;

        int32_t matches = 0;
        struct stat first = {};  // of the first path, or of the last one read when that is missing
        bool firstExists = false;
        for (Json::ArrayIndex i = 0; i < paths->size(); ++i) {
            const std::string path = pathOf((*paths)[i]);
            struct stat st = {};
            if (stat(path.c_str(), &st) != 0) {
                RUX_LOGD("file no exist.");
                continue;
            }
            if (i == 0) firstExists = true;
            if (i == 0 || !firstExists) first = st;
            if (st.st_mtime != recordedMtimeSeconds(path)) {
                RUX_LOGD("file %s is modified.", path.c_str());
                markModified(pathOf((*paths)[0]), Mark::Retired);
                retired.push_back(digest);
                break;
            }
            if (patterns.matches(path)) ++matches;
            if (getStopProp(kStopListing)) {
                RUX_LOGD("stop.");
                return;
            }
        }
        if (matches >= 2) count(digest, matches, first, counts);
    }
    for (const std::string& digest : retired) checkNoCompressDB.change().removeMember(digest);
}

}  // namespace rux
