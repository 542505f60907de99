#include "scan/newcomers.h"

#include <algorithm>
#include <utility>

#include "db/images.h"
#include "db/json_text.h"
#include "db/records.h"

namespace rux {
namespace {

constexpr size_t kMost = 16384;        // files between two entries
constexpr Json::ArrayIndex kFew = 16;  // members that are looked through one by one

/// The beginning of a digest, as a number that sorts as the digests do.
uint64_t beginningOf(const FileMD5Result& result) {
    uint64_t number = 0;
    for (size_t i = 0; i < sizeof(number); ++i)
        number = number << 8 | static_cast<unsigned char>(result.md5[i]);
    return number;
}

}  // namespace

void Newcomers::add(const FileMD5Result& result, int64_t fileBytes, const std::string& path) {
    if (mFiles.size() == kMost) enter();
    mFiles.push_back({result, fileBytes, path});
}

void Newcomers::enter() {
    std::vector<std::pair<uint64_t, size_t>> order;
    order.reserve(mFiles.size());
    for (size_t i = 0; i < mFiles.size(); ++i) order.emplace_back(beginningOf(mFiles[i].result), i);
    std::sort(order.begin(), order.end());
    for (const auto& [beginning, index] : order) join(mFiles[index]);
    mFiles.clear();
}

void Newcomers::join(File& file) {
    Json::Value& group = asObject(checkNoCompressDB.change())[file.result.md5];
    if (!group.isObject()) {
        makeGroup(group, file.bytes, std::move(file.path));
        return;
    }
    Json::Value& paths = group["f_list"];
    if (!paths.isArray()) paths = Json::Value(Json::arrayValue);
    if (!isMember(paths, stringOf(file.path))) paths.append(std::move(file.path));
}

bool Newcomers::isMember(const Json::Value& paths, std::string_view path) {
    if (paths.size() > kFew && unfinishedMembers().count(std::string(path)) == 0) return false;
    return std::any_of(paths.begin(), paths.end(),
                       [path](const Json::Value& member) { return stringOf(member) == path; });
}

/// The members of groups that had no finished record before they became newcomers, as after DB1 was
/// lost: only they can be met again and be in their groups already. Found out once for each load of
/// the images.
const std::unordered_set<std::string>& Newcomers::unfinishedMembers() {
    if (mUnfinishedOf == loadCount()) return mUnfinished;
    std::unordered_set<std::string_view> newcomers;
    for (const File& file : mFiles) newcomers.insert(stringOf(file.path));
    mUnfinished.clear();
    for (const Json::Value& group : *checkNoCompressDB) {
        const Json::Value* paths = groupPaths(group);
        if (paths == nullptr) continue;
        for (const Json::Value& member : *paths) {
            const std::string path(stringOf(member));
            if (!isFinished(path) || newcomers.count(path) != 0) mUnfinished.insert(path);
        }
    }
    mUnfinishedOf = loadCount();
    return mUnfinished;
}

}  // namespace rux
