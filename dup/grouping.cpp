#include "dup/grouping.h"

#include <sys/stat.h>

#include <algorithm>
#include <atomic>
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

/// A member of a group as it is found.
struct Member {
    enum class Found { NotYet, Missing, Modified, Unchanged } found = Found::NotYet;
    bool leads = false;  // it is the first of its group
    std::string digest;  // of the group that it leads
    std::string path;
    struct stat status = {};
    bool matches = false;
    std::vector<const std::string*> tooLong;  // patterns that took too long for the path
    bool stopSeen = false;                    // right after it was looked at

    void look(const PatternList& patterns) {
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

/// Goes through the members of all groups that have several, in their order.
class Members {
  public:
    /// The next ones, of as many groups as they come from. Empty at the end.
    std::vector<Member> next() {
        std::vector<Member> members;
        for (; mGroup != mEnd; ++mGroup, mMember = 0) {
            const Json::Value* paths = groupPaths(*mGroup);
            if (paths == nullptr || paths->size() < 2 || mGroup.name().empty()) continue;
            for (; mMember < paths->size(); ++mMember) {
                if (members.size() == kMembersAtOnce) return members;
                Member& member = members.emplace_back();
                member.leads = mMember == 0;
                if (member.leads) member.digest = mGroup.name();
                member.path = pathOf((*paths)[mMember]);
            }
        }
        return members;
    }

  private:
    Json::Value::const_iterator mGroup = checkNoCompressDB->begin();
    const Json::Value::const_iterator mEnd = checkNoCompressDB->end();
    Json::ArrayIndex mMember = 0;
};

/// Looks at the members with all processors. It has no effect, and so need not wait for their turn.
/// Once the stop property is seen, what is left is not looked at.
void lookAt(std::vector<Member>& members, const PatternList& patterns) {
    const size_t shares = std::min(processors(), members.size() / kWorthAThread + 1);
    std::atomic<bool> stopped{false};
    inParallel(shares, [&](size_t share) {
        for (size_t i = share; i < members.size() && !stopped; i += shares) {
            members[i].look(patterns);
            if (members[i].stopSeen) stopped = true;
        }
    });
}

/// The group that is being examined.
struct Group {
    std::string digest;
    std::string leader;
    bool leaderExists = false;
    struct stat status = {};  // of the leader, or of the last member read when that is missing
    int32_t matches = 0;
    bool isRetired = false;
};

/// Adds a group with several members that match. The link count of its first file says how many of
/// them share its data already.
void count(const Group& group, DupCounts& counts) {
    if (group.matches < 2 || !counts.counted.insert(group.digest).second) return;
    counts.sameMD5GroupCount += 1;
    counts.dupFileCount += group.matches;
    const int64_t copies =
            std::max<int64_t>(0, group.matches - static_cast<int64_t>(group.status.st_nlink));
    counts.canCompressSize = addBytes(counts.canCompressSize, group.status.st_size, copies);
}

}  // namespace

void readDupFiles(const PatternList& patterns, DupCounts& counts) {
    if (!checkNoCompressDB->isObject()) return;
    std::vector<std::string> retired;
    Group group;
    Members all;
    for (auto members = all.next(); !members.empty(); members = all.next()) {
        lookAt(members, patterns);
        for (Member& member : members) {
            if (group.isRetired && !member.leads) continue;
            if (member.found == Member::Found::NotYet) member.look(patterns);
            if (member.leads) {
                count(group, counts);
                group = {.digest = member.digest,
                         .leader = member.path,
                         .leaderExists = member.found != Member::Found::Missing};
            }
            if (member.found == Member::Found::Missing) {
                RUX_LOGD("file no exist.");
                continue;
            }
            if (member.leads || !group.leaderExists) group.status = member.status;
            if (member.found == Member::Found::Modified) {
                RUX_LOGD("file %s is modified.", member.path.c_str());
                markModified(group.leader, Mark::Retired);
                retired.push_back(group.digest);
                group.isRetired = true;
                continue;
            }
            for (const std::string* pattern : member.tooLong)
                RUX_LOGE("pattern %s takes too long for %s", pattern->c_str(), member.path.c_str());
            group.matches += static_cast<int32_t>(member.matches);
            if (member.stopSeen) {
                RUX_LOGD("stop.");
                return;
            }
        }
    }
    count(group, counts);
    for (const std::string& digest : retired) takeMember(checkNoCompressDB.change(), digest);
}

}  // namespace rux
