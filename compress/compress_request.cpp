#include "compress/compress_request.h"

#include <chrono>
#include <cstdint>
#include <future>
#include <map>
#include <utility>
#include <vector>

#include "android-base/properties.h"
#include "control/busy.h"
#include "control/log.h"
#include "control/properties.h"
#include "db/images.h"
#include "db/json_text.h"
#include "db/records.h"
#include "db/space.h"
#include "platform/include/tavo_f2fs_io_extensions.h"
#include "request/rules.h"
#include "tavo_f2fs_io.h"

namespace rux {
namespace {

constexpr int32_t kProgressStep = 100;  // links between two writes of the progress property

constexpr size_t kBatch = 256;  // links that are settled while the next ones are made

using Undone = std::map<std::string, int32_t>;  // links, each with the errno

/// A group with links that may still be undone.
struct LinkedGroup {
    int64_t fileBytes = 0;
    std::vector<std::string> links;
    bool isFinished = false;
};

/// What a request has done so far, over all of its spaces.
struct Tally {
    int32_t linkedFiles = 0;
    int64_t compressedGroupCount = 0;
    int64_t linkedBytes = 0;
    std::vector<LinkedGroup> uncertain;  // not in the two above yet
    Undone undone;                       // of those
    size_t unsettled = 0;                // links
    std::future<Undone> settling;
};

void load(const std::string& SpaceID_DBPath) {
    DBReaderInit(SpaceID_DBPath, false, true, true, false);
}
void save(const std::string& SpaceID_DBPath) {
    DBWriteUpdate(SpaceID_DBPath, false, true, true, false);
}

/// The index of the first path that exists; the number of paths when none does.
Json::ArrayIndex firstExisting(const Json::Value& paths) {
    Json::ArrayIndex index = 0;
    while (index < paths.size() && !pathExists(pathOf(paths[index]))) ++index;
    return index;
}

/// Waits for the links that are being settled.
void joinSettling(Tally& tally) {
    if (tally.settling.valid()) tally.undone.merge(tally.settling.get());
}

/// Has the links so far settled while the next ones are made, unless that is being done.
void settleBatch(Tally& tally) {
    using namespace std::chrono_literals;
    if (settleLinks == nullptr) return;
    if (tally.settling.valid() && tally.settling.wait_for(0s) != std::future_status::ready) return;
    joinSettling(tally);
    tally.unsettled = 0;
    tally.settling = std::async(settleLinks, false);  // without a thread, when it is waited for
}

void countLink(const std::string& duplicate, Tally& tally) {
    tally.uncertain.back().links.push_back(duplicate);
    tally.linkedFiles += 1;
    if (++tally.unsettled >= kBatch) settleBatch(tally);
    if (tally.linkedFiles % kProgressStep == 0) {
        android::base::SetProperty(kCompressionProgress, std::to_string(tally.linkedFiles));
    }
}

/// Settles all links, and counts what has been linked for good. The errno of each link that had to
/// be undone.
std::vector<int32_t> settle(Tally& tally) {
    std::vector<int32_t> codes;
    joinSettling(tally);
    if (settleLinks != nullptr) tally.undone.merge(settleLinks(true));
    for (LinkedGroup& group : tally.uncertain) {
        std::erase_if(group.links, [&](const std::string& path) {
            const auto found = tally.undone.find(path);
            if (found != tally.undone.end()) codes.push_back(found->second);
            return found != tally.undone.end();
        });
        const auto links = static_cast<int64_t>(group.links.size());
        tally.linkedBytes = addBytes(tally.linkedBytes, group.fileBytes, links);
        if (group.isFinished && links > 0) tally.compressedGroupCount += 1;
    }
    tally.linkedFiles -= static_cast<int32_t>(codes.size());
    tally.uncertain.clear();
    tally.undone.clear();
    return codes;
}

void moveToCompressed(const std::string& digest) {
    Json::Value group = takeMember(checkNoCompressDB.change(), digest);
    asObject(checkACompressDB.change())[digest] = std::move(group);
}

/// The digests of the groups of the loaded space that have several members.
std::vector<std::string> duplicates() {
    std::vector<std::string> digests;
    if (!checkNoCompressDB->isObject()) return digests;
    for (auto group = checkNoCompressDB->begin(); group != checkNoCompressDB->end(); ++group) {
        const Json::Value* paths = groupPaths(*group);
        if (paths == nullptr || paths->size() < 2) continue;
        if (std::string digest = group.name(); !digest.empty())
            digests.push_back(std::move(digest));
    }
    return digests;
}

/// Compresses the groups of the loaded space, until the stop property ends it.
void compressFile(Tally& tally) {
    bool isStopped = false;
    for (const std::string& digest : duplicates()) {
        const Json::Value& group = (*checkNoCompressDB)[digest];
        const Json::Value* paths = groupPaths(group);
        const Json::ArrayIndex keptIndex = firstExisting(*paths);
        if (keptIndex + 1 >= paths->size()) {
            RUX_LOGD("the group is deleted");
            continue;
        }
        const std::string kept = pathOf((*paths)[keptIndex]);
        tally.uncertain.emplace_back().fileBytes = groupFileBytes(group);
        for (Json::ArrayIndex i = keptIndex + 1; i < paths->size() && !isStopped; ++i) {
            const std::string duplicate = pathOf((*paths)[i]);
            if (!pathExists(duplicate)) {
                RUX_LOGD("file %s is deleted", duplicate.c_str());
                continue;
            }
            const int32_t code = createHardLink(kept.c_str(), duplicate.c_str(), toolLogEnabled);
            if (code != 0) {
                RUX_LOGE("createHardLink fail, error code %d", code);
            } else {
                countLink(duplicate, tally);
            }
            isStopped = getStopProp(kStopCompression);
        }
        if (isStopped) break;
        moveToCompressed(digest);
        tally.uncertain.back().isFinished = true;
    }
    for (const int32_t code : settle(tally)) RUX_LOGE("createHardLink fail, error code %d", code);
    if (!isStopped) return;
    if (tally.compressedGroupCount == 0) {
        RUX_LOGD("the compressedGroupCount is 0, selfadd.");
        tally.compressedGroupCount = 1;
    }
    RUX_LOGD("compress stop.");
}

}  // namespace

std::string Rux_compressDuplicateFilesImp(const std::string& request) {
    const BusyGuard busy(Operation::Compression);
    if (!busy.admitted()) {
        RUX_LOGD("the Compress has been started,return");
        return "0,0";
    }
    android::base::SetProperty(kCompressionProgress, "0");
    android::base::SetProperty(kStopCompression, "false");
    std::vector<std::string> spaceIds;
    if (!readStrings(request, spaceIds)) {
        RUX_LOGE("getDuplicateFilesRules analysis fail");
        return "0,0";
    }
    isEnableToolLog();
    Tally tally;
    for (const std::string& spaceId : spaceIds) {
        const std::string SpaceID_DBPath = spaceDirectory(spaceId);
        if (!pathExists(SpaceID_DBPath)) {
            RUX_LOGD("the space id DB path is not access");
            continue;
        }
        load(SpaceID_DBPath);
        compressFile(tally);
        const bool stopped = getStopProp(kStopCompression);
        if (stopped) RUX_LOGD("compress stop.");
        save(SpaceID_DBPath);
        if (stopped) break;
    }
    std::string result =
            std::to_string(tally.compressedGroupCount) + "," + std::to_string(tally.linkedBytes);
    RUX_LOGD("compress result %s.", result.c_str());
    return result;
}

}  // namespace rux
