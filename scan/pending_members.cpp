#include "scan/pending_members.h"

#include <algorithm>
#include <cstring>
#include <string_view>
#include <unordered_set>
#include <utility>

#include "db/images.h"
#include "db/json_text.h"
#include "db/records.h"

namespace rux {
namespace {

/// The beginning of a digest, as a number that sorts as the digests do, and faster.
uint64_t beginningOf(const FileMD5Result& result) {
    uint64_t number = 0;
    for (size_t i = 0; i < sizeof(number); ++i)
        number = number << 8 | static_cast<unsigned char>(result.md5[i]);
    return number;
}

}  // namespace

void PendingMembers::add(const SharedDigest& digest, int64_t fileBytes, const std::string& path) {
    if (mFiles.size() == kMost) enter();
    mFiles.push_back({digest, fileBytes, path});
}

void PendingMembers::enter() {
    std::vector<std::pair<uint64_t, size_t>> order;
    order.reserve(mFiles.size());
    for (size_t i = 0; i < mFiles.size(); ++i)
        order.emplace_back(beginningOf(*mFiles[i].digest), i);
    std::sort(order.begin(), order.end());
    std::vector<File*> ofOneGroup;
    for (const auto& [beginning, index] : order) {
        File& file = mFiles[index];
        if (!ofOneGroup.empty() && strcmp(ofOneGroup[0]->digest->md5, file.digest->md5) != 0) {
            join(ofOneGroup);
            ofOneGroup.clear();
        }
        ofOneGroup.push_back(&file);
    }
    if (!ofOneGroup.empty()) join(ofOneGroup);
    mFiles.clear();
}

/// Appends files of one digest to its group, as far as they are not in it already: one that has
/// lost its record may be.
void PendingMembers::join(std::span<File* const> files) {
    Json::Value& group = asObject(checkNoCompressDB.change())[files[0]->digest->md5];
    if (!group.isObject()) {
        makeGroup(group, files[0]->bytes, std::move(files[0]->path));
        files = files.subspan(1);
    }
    if (files.empty()) return;
    Json::Value& paths = group["f_list"];
    if (!paths.isArray()) paths = Json::Value(Json::arrayValue);
    std::unordered_set<std::string_view> missing;
    for (const File* file : files) missing.insert(stringOf(file->path));
    for (const Json::Value& member : paths) missing.erase(stringOf(member));
    for (File* file : files) {
        if (missing.erase(stringOf(file->path)) > 0) paths.append(std::move(file->path));
    }
}

}  // namespace rux
