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

constexpr size_t kMost = 16384;  // files between two entries

/// The beginning of a digest, as a number that sorts as the digests do.
uint64_t beginningOf(const FileMD5Result& result) {
    uint64_t number = 0;
    for (size_t i = 0; i < sizeof(number); ++i)
        number = number << 8 | static_cast<unsigned char>(result.md5[i]);
    return number;
}

}  // namespace

void PendingMembers::add(const FileMD5Result& result, int64_t fileBytes, const std::string& path) {
    if (mFiles.size() == kMost) enter();
    mFiles.push_back({result, fileBytes, path});
}

void PendingMembers::enter() {
    std::vector<std::pair<uint64_t, size_t>> order;
    order.reserve(mFiles.size());
    for (size_t i = 0; i < mFiles.size(); ++i) order.emplace_back(beginningOf(mFiles[i].result), i);
    std::sort(order.begin(), order.end());
    std::vector<File*> ofOneGroup;
    for (const auto& [beginning, index] : order) {
        File& file = mFiles[index];
        if (!ofOneGroup.empty() && strcmp(ofOneGroup[0]->result.md5, file.result.md5) != 0) {
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
void PendingMembers::join(const std::vector<File*>& files) {
    auto next = files.begin();
    Json::Value& group = asObject(checkNoCompressDB.change())[(*next)->result.md5];
    if (!group.isObject()) {
        makeGroup(group, (*next)->bytes, std::move((*next)->path));
        ++next;
    }
    if (next == files.end()) return;
    Json::Value& paths = group["f_list"];
    if (!paths.isArray()) paths = Json::Value(Json::arrayValue);
    std::unordered_set<std::string_view> missing;
    for (auto file = next; file != files.end(); ++file) missing.insert(stringOf((*file)->path));
    for (const Json::Value& member : paths) missing.erase(stringOf(member));
    for (; next != files.end(); ++next) {
        if (missing.erase(stringOf((*next)->path)) > 0) paths.append(std::move((*next)->path));
    }
}

}  // namespace rux
