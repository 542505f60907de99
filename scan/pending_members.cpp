#include "scan/pending_members.h"

#include <endian.h>

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

/// Puts those that are missing in front of the others.
void prepend(const std::vector<std::string>& linked, Json::Value& paths) {
    std::unordered_set<std::string_view> present;
    for (const Json::Value& path : paths) present.insert(stringOf(path));
    Json::Value all(Json::arrayValue);
    for (const std::string& path : linked) {
        if (!present.contains(path)) all.append(path);
    }
    for (Json::Value& path : paths) all.append(std::move(path));
    paths = std::move(all);
}

}  // namespace

void PendingMembers::add(const SharedDigest& digest, int64_t fileBytes, const std::string& path) {
    if (mFiles.size() == kMost) enter();
    uint64_t beginning = 0;
    memcpy(&beginning, digest->md5, sizeof(beginning));
    mFiles.push_back({be64toh(beginning), digest, fileBytes, path});
}

void PendingMembers::enter() {
    std::vector<File*> files;
    for (File& file : mFiles) files.push_back(&file);
    const auto precedes = [](const File* a, const File* b) {
        return a->beginning != b->beginning ? a->beginning < b->beginning
                                            : strcmp(a->digest->md5, b->digest->md5) < 0;
    };
    std::stable_sort(files.begin(), files.end(), precedes);
    for (auto first = files.begin(); first != files.end();) {
        const auto end = std::upper_bound(first, files.end(), *first, precedes);
        join({first, end});
        first = end;
    }
    mFiles.clear();
}

/// Appends files of one digest to its group, as far as they are not in it already: one that has
/// lost its record may be.
void PendingMembers::join(std::span<File* const> files) {
    const std::string digest = files[0]->digest->md5;
    std::vector<std::string> linked;
    if (mKnown != nullptr) linked = mKnown->takeLinked(digest);
    Json::Value& group = asObject(checkNoCompressDB.change())[digest];
    if (!group.isObject()) makeGroup(group, files[0]->bytes);
    Json::Value& paths = group["f_list"];
    if (!paths.isArray()) paths = Json::Value(Json::arrayValue);
    if (!linked.empty()) prepend(linked, paths);
    if (paths.empty()) {
        paths.append(std::move(files[0]->path));
        files = files.subspan(1);
    }
    if (files.empty()) return;
    std::unordered_set<std::string_view> missing;
    for (const File* file : files) missing.insert(stringOf(file->path));
    for (const Json::Value& member : paths) missing.erase(stringOf(member));
    for (File* file : files) {
        if (missing.erase(stringOf(file->path)) > 0) paths.append(std::move(file->path));
    }
}

}  // namespace rux
