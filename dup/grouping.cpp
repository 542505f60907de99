#include "dup/grouping.h"

#include <sys/stat.h>

#include <algorithm>
#include <atomic>
#include <thread>
#include <utility>
#include <vector>

#include "control/log.h"
#include "control/parallel.h"
#include "control/properties.h"
#include "db/images.h"
#include "db/json_text.h"
#include "db/records.h"

namespace rux {
namespace {

constexpr size_t kMembersAtOnce = 2048;  // that are looked at ahead of their turn
constexpr size_t kWorthAThread = 64;     // members

/// Adds a group with `matches` matching members. `st` is the status of its first file, whose link
/// count says how many of the members share its data already.
void count(const std::string& digest, int32_t matches, const struct stat& st, DupCounts& counts) {
    if (!counts.counted.insert(digest).second) return;
    counts.sameMD5GroupCount += 1;
    counts.dupFileCount += matches;
    const int64_t copies = std::max<int64_t>(0, matches - static_cast<int64_t>(st.st_nlink));
    counts.canCompressSize = addBytes(counts.canCompressSize, st.st_size, copies);
}

/// A member of a group as it is found.
struct Member {
    enum class Found { NotYet, Missing, Modified, Unchanged } found = Found::NotYet;
    const Json::Value* entry = nullptr;
    std::string path;
    struct stat status = {};
    bool matches = false;
    std::vector<const std::string*> tooLong;  // patterns that took too long for the path
    bool stopSeen = false;                    // right after it was looked at

    void look(const PatternList& patterns) {
        path = pathOf(*entry);
        if (stat(path.c_str(), &status) != 0) {
            found = Found::Missing;
        } else if (status.st_mtime != recordedMtimeSeconds(path)) {
            found = Found::Modified;
        } else {
            found = Found::Unchanged;
            matches = patterns.matches(path, tooLong);
            stopSeen = getStopProp(kStopListing);
        }
    }
};
/// Successive members of one group.
struct Part {
    std::string digest;
    bool isFirst = false;
    bool isLast = false;
    std::vector<Member> members;
};

/// Goes through the members of all groups that have several, in their order.
class Members {
  public:
    /// The next ones, of as many groups as they come from. Empty at the end.
    std::vector<Part> next() {
        std::vector<Part> parts;
        for (size_t count = 0; mGroup != mEnd && count < kMembersAtOnce;) {
            const Json::Value* paths = groupPaths(*mGroup);
            if (paths == nullptr || paths->size() < 2 || mGroup.name().empty()) {
                ++mGroup;
                continue;
            }
            Part part = {mGroup.name(), mMember == 0, false, {}};
            for (; mMember < paths->size() && count < kMembersAtOnce; ++mMember, ++count)
                part.members.emplace_back().entry = &(*paths)[mMember];
            part.isLast = mMember == paths->size();
            if (part.isLast) {
                ++mGroup;
                mMember = 0;
            }
            parts.push_back(std::move(part));
        }
        return parts;
    }

  private:
    Json::Value::const_iterator mGroup = checkNoCompressDB->begin();
    const Json::Value::const_iterator mEnd = checkNoCompressDB->end();
    Json::ArrayIndex mMember = 0;
};

/// Looks at the members with as many threads as there are processors. It has no effect, and so need
/// not wait for their turn. Once the stop property is seen, what is left is not looked at.
void lookAt(std::vector<Part>& parts, const PatternList& patterns) {
    std::vector<Member*> all;
    for (Part& part : parts) {
        for (Member& member : part.members) all.push_back(&member);
    }
    const size_t processors = std::max(1U, std::thread::hardware_concurrency());
    const size_t shares = std::min(processors, all.size() / kWorthAThread + 1);
    std::atomic<bool> stopped{false};
    inParallel(shares, [&](size_t share) {
        const size_t end = (share + 1) * all.size() / shares;
        for (size_t i = share * all.size() / shares; i < end && !stopped; ++i) {
            all[i]->look(patterns);
            if (all[i]->stopSeen) stopped = true;
        }
    });
}

/// The group that is being examined.
struct Group {
    std::string firstPath;
    bool firstExists = false;
    struct stat status = {};  // of the first path, or of the last one read when that is missing
    int32_t matches = 0;
    bool isRetired = false;
};

}  // namespace

void readDupFiles(const PatternList& patterns, DupCounts& counts) {
    if (!checkNoCompressDB->isObject()) return;
    std::vector<std::string> retired;
    Group group;
    Members members;
    for (auto parts = members.next(); !parts.empty(); parts = members.next()) {
        lookAt(parts, patterns);
        for (Part& part : parts) {
            if (part.isFirst) group = Group();
            for (Member& member : part.members) {
                if (group.isRetired) break;
                if (member.found == Member::Found::NotYet) member.look(patterns);
                const bool isFirst = part.isFirst && &member == &part.members[0];
                if (isFirst) group.firstPath = member.path;
                if (member.found == Member::Found::Missing) {
                    RUX_LOGD("file no exist.");
                    continue;
                }
                if (isFirst) group.firstExists = true;
                if (isFirst || !group.firstExists) group.status = member.status;
                if (member.found == Member::Found::Modified) {
                    RUX_LOGD("file %s is modified.", member.path.c_str());
                    markModified(group.firstPath, Mark::Retired);
                    retired.push_back(part.digest);
                    group.isRetired = true;
                    break;
                }
                for (const std::string* pattern : member.tooLong)
                    RUX_LOGE("pattern %s takes too long for %s", pattern->c_str(),
                             member.path.c_str());
                if (member.matches) ++group.matches;
                if (member.stopSeen) {
                    RUX_LOGD("stop.");
                    return;
                }
            }
            if (part.isLast && group.matches >= 2)
                count(part.digest, group.matches, group.status, counts);
        }
    }
    for (const std::string& digest : retired) takeMember(checkNoCompressDB.change(), digest);
}

}  // namespace rux
