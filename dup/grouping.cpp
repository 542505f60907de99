#include "dup/grouping.h"

#include <sys/stat.h>

#include <algorithm>
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
    const Json::Value* entry = nullptr;
    std::string path;
    bool exists = false;
    struct stat status = {};
    int64_t recordedMtime = 0;

    void look() {
        path = pathOf(*entry);
        exists = stat(path.c_str(), &status) == 0;
        if (exists) recordedMtime = recordedMtimeSeconds(path);
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
/// not wait for their turn.
void lookAt(std::vector<Part>& parts) {
    std::vector<Member*> all;
    for (Part& part : parts) {
        for (Member& member : part.members) all.push_back(&member);
    }
    const size_t processors = std::max(1U, std::thread::hardware_concurrency());
    const size_t shares = std::min(processors, all.size() / kWorthAThread + 1);
    inParallel(shares, [&](size_t share) {
        const size_t end = (share + 1) * all.size() / shares;
        for (size_t i = share * all.size() / shares; i < end; ++i) all[i]->look();
    });
}

/// What comes of the group that is being examined, and of those before it.
class Examination {
  public:
    Examination(const PatternList& patterns, DupCounts& counts)
          : mPatterns(patterns), mCounts(counts) {}

    /// False when the stop property has ended it.
    bool examine(const Part& part) {
        if (part.isFirst) begin(part.members[0]);
        for (const Member& member : part.members) {
            if (mIsRetired) break;
            if (!member.exists) {
                RUX_LOGD("file no exist.");
                continue;
            }
            if (!mFirstExists) mStatus = member.status;
            if (member.status.st_mtime != member.recordedMtime) {
                RUX_LOGD("file %s is modified.", member.path.c_str());
                markModified(mFirstPath, Mark::Retired);
                mRetired.push_back(part.digest);
                mIsRetired = true;
                break;
            }
            if (mPatterns.matches(member.path)) ++mMatches;
            if (getStopProp(kStopListing)) {
                RUX_LOGD("stop.");
                return false;
            }
        }
        if (part.isLast && mMatches >= 2) count(part.digest, mMatches, mStatus, mCounts);
        return true;
    }

    /// The groups that have a modified member leave DB2.
    void retire() const {
        for (const std::string& digest : mRetired) checkNoCompressDB.change().removeMember(digest);
    }

  private:
    void begin(const Member& first) {
        mFirstPath = first.path;
        mFirstExists = first.exists;
        mStatus = first.status;
        mMatches = 0;
        mIsRetired = false;
    }

    const PatternList& mPatterns;
    DupCounts& mCounts;
    std::vector<std::string> mRetired;
    // Of the group:
    std::string mFirstPath;
    bool mFirstExists = false;
    struct stat mStatus = {};  // of the first path, or of the last one read when that is missing
    int32_t mMatches = 0;
    bool mIsRetired = false;
};

}  // namespace

void readDupFiles(const PatternList& patterns, DupCounts& counts) {
    if (!checkNoCompressDB->isObject()) return;
    Examination examination(patterns, counts);
    Members members;
    for (auto parts = members.next(); !parts.empty(); parts = members.next()) {
        lookAt(parts);
        for (const Part& part : parts) {
            if (!examination.examine(part)) return;
        }
    }
    examination.retire();
}

}  // namespace rux
