#include "dup/listing_request.h"

#include <deque>
#include <vector>

#include "android-base/properties.h"
#include "control/busy.h"
#include "control/log.h"
#include "control/properties.h"
#include "db/images.h"
#include "db/records.h"
#include "db/space.h"
#include "dup/grouping.h"
#include "request/patterns.h"
#include "request/rules.h"

namespace rux {
namespace {

constexpr size_t kPageBytes =
        size_t{600} * 1024;  // a page whose text is longer than that is closed

// The listing's state between calls; touched only with its busy flag held.
std::deque<std::string> dupPageList;  // texts of the pages to be handed out, the next one first
bool isDupTransfer = false;           // whether some remain

void load(const std::string& SpaceID_DBPath) {
    DBReaderInit(SpaceID_DBPath, true, true, false, true);
}
void save(const std::string& SpaceID_DBPath) {
    DBWriteUpdate(SpaceID_DBPath, true, true, false, true);
}

std::string textOf(const Json::Value& value) {
    return Json::FastWriter().write(value);
}

/// The page that is being filled, and the length of its text.
class Page {
  public:
    /// Sets the entry of a space, in place of one that the page may have of it.
    void set(const std::string& spaceId, const DupCounts& counts) {
        const bool replaced = mEntries.isMember(spaceId);
        Json::Value entry(Json::objectValue);
        entry["fileCount"] = counts.dupFileCount;
        entry["gCount"] = counts.sameMD5GroupCount;
        entry["size"] = static_cast<Json::Int64>(counts.canCompressSize);
        mEntries[spaceId] = entry;
        if (replaced) {
            mBytes = textOf(mEntries).size();
            return;
        }
        // An entry adds as much as it would take alone, less the braces and the line feed, and a
        // comma unless it is the first.
        Json::Value alone(Json::objectValue);
        alone[spaceId] = entry;
        mBytes += textOf(alone).size() - (mEntries.size() == 1 ? 0 : 2);
    }

    size_t bytes() const { return mBytes; }

    /// The finished page; a new one is begun.
    std::string close(bool isEnd) {
        mEntries["isEnd"] = isEnd ? 1 : 0;
        std::string text = textOf(mEntries);
        *this = Page();
        return text;
    }

  private:
    Json::Value mEntries{Json::objectValue};
    size_t mBytes = 0;
};

/// Hands out the next page.
std::string takePage() {
    isDupTransfer = dupPageList.size() > 1;
    std::string page = std::move(dupPageList.front());
    dupPageList.pop_front();
    return page;
}

}  // namespace

std::string Rux_getDuplicateFilesImp(const std::string& request) {
    const BusyGuard busy(Operation::Listing);
    if (!busy.admitted()) {
        RUX_LOGD("the Rux_getDuplicateFilesImp has been start, return");
        return "{}";
    }
    android::base::SetProperty(kStopListing, "false");
    if (isDupTransfer) {
        RUX_LOGD("Rux_getDuplicateFilesImp is transfer");
        return takePage();
    }
    std::vector<SpaceRule> rules;
    if (!readSpaceRules(request, rules)) {
        RUX_LOGE("getDuplicateFilesRules analysis fail");
        return "";
    }
    dupPageList.clear();  // of a listing that failed half-way
    Page page;
    for (const SpaceRule& rule : rules) {
        if (rule.id != SpaceRule::Id::Given) {
            RUX_LOGE("getDupFileRules Incorrect format");
            continue;
        }
        const std::string SpaceID_DBPath = spaceDirectory(rule.spaceId);
        if (!pathExists(SpaceID_DBPath)) {
            RUX_LOGE("the space id DB path is not access");
            continue;
        }
        load(SpaceID_DBPath);
        if (rule.patterns.empty()) {
            RUX_LOGD("the getDupFileRules reg is empty");
            continue;
        }
        const PatternList patterns(rule.patterns);
        DupCounts counts;
        if (!rule.places) {
            RUX_LOGE("getDupFileRules Incorrect format");
        } else if (rule.places->empty()) {
            readDupFiles(patterns, counts);
        } else {
            for (size_t pass = 0; pass < rule.places->size(); ++pass) {
                readDupFiles(patterns, counts);
                if (getStopProp(kStopListing)) {
                    RUX_LOGD("get dup stop.");
                    break;
                }
            }
        }
        save(SpaceID_DBPath);
        RUX_LOGD("getDupFileRules sameMD5GroupCount %d, canCompressSize %lld, dupFileCount %d.",
                 static_cast<int>(counts.sameMD5GroupCount),
                 static_cast<long long>(counts.canCompressSize), counts.dupFileCount);
        page.set(rule.spaceId, counts);
        if (page.bytes() > kPageBytes) {
            RUX_LOGD("the size is larger");
            dupPageList.push_back(page.close(false));
        }
        if (getStopProp(kStopListing)) {
            RUX_LOGD("get dup stop.");
            break;
        }
    }
    dupPageList.push_back(page.close(true));
    return takePage();
}

}  // namespace rux
