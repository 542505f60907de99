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
void PendingMembers::add(const SharedDigest& digest, int64_t fileBytes, const std::string& path) {
    if (mFiles.size() == kMost) enter();
    mFiles.push_back({digest, fileBytes, path});
}

void PendingMembers::enter() {
    const auto precedes = [](const File& a, const File& b) {
        return strcmp(a.digest->md5, b.digest->md5) < 0;
    };
    std::stable_sort(mFiles.begin(), mFiles.end(), precedes);
    for (auto first = mFiles.begin(); first != mFiles.end();) {
        const auto end = std::upper_bound(first, mFiles.end(), *first, precedes);
        join({first, end});
        first = end;
    }
    mFiles.clear();
}

/// Appends files of one digest to its group, as far as they are not in it already: one that has
/// lost its record may be.
void PendingMembers::join(std::span<File> files) {
    Json::Value& group = asObject(checkNoCompressDB.change())[files[0].digest->md5];
    if (!group.isObject()) {
        makeGroup(group, files[0].bytes, std::move(files[0].path));
        files = files.subspan(1);
    }
    if (files.empty()) return;
    Json::Value& paths = group["f_list"];
    if (!paths.isArray()) paths = Json::Value(Json::arrayValue);
    std::unordered_set<std::string_view> missing;
    for (const File& file : files) missing.insert(stringOf(file.path));
    for (const Json::Value& member : paths) missing.erase(stringOf(member));
    for (File& file : files) {
        if (missing.erase(stringOf(file.path)) > 0) paths.append(std::move(file.path));
    }
}

}  // namespace rux
