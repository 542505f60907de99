#include "scan/fingerprint.h"

#include <algorithm>
#include <string_view>
#include <unordered_set>
#include <utility>

#include "control/log.h"
#include "control/properties.h"
#include "db/images.h"
#include "db/json_text.h"
#include "db/records.h"
#include "db/space.h"
#include "tavo_f2fs_io.h"

namespace rux {
namespace {

/// The names under which the I/O library keeps a file for the moment in which it exchanges it:
/// ".rux-", "swap" or "part", and 32 digits. One that a kill has left is nobody's file.
bool isLeftover(std::string_view path) {
    const std::string_view name = path.substr(path.rfind('/') + 1);
    return name.size() == 42 && (name.starts_with(".rux-swap-") || name.starts_with(".rux-part-"));
}

bool isFinished(const std::string& path) {
    const Json::Value* record = memberOf(*fileInfoDB, path);
    return record != nullptr && hasDigest(*record);
}

/// The text after the last "." when that looks like the kind of a file, otherwise "nosuffix".
std::string suffixOf(std::string_view name) {
    constexpr size_t kLongest = 10;
    const size_t point = name.rfind('.');
    if (point == std::string_view::npos) return "nosuffix";
    const std::string_view suffix = name.substr(point + 1);
    const bool fits = !suffix.empty() && suffix.size() <= kLongest &&
                      suffix.find('/') == std::string_view::npos;
    return fits ? std::string(suffix) : "nosuffix";
}

std::string_view textOf(const Json::Value& string) {
    const char* begin = nullptr;
    const char* end = nullptr;
    if (!string.isString() || !string.getString(&begin, &end)) return {};
    return {begin, static_cast<size_t>(end - begin)};
}

/// The members of groups that have no finished record, as after DB1 was lost: only they can be met
/// again and be in their groups already. Found out once for each load of the images.
const std::unordered_set<std::string>& unfinishedMembers() {
    static std::unordered_set<std::string> members;
    static uint64_t knownFor = 0;
    if (knownFor == loadCount()) return members;
    members.clear();
    for (const Json::Value& group : *checkNoCompressDB) {
        const Json::Value* paths = groupPaths(group);
        if (paths == nullptr) continue;
        for (const Json::Value& member : *paths) {
            std::string path(textOf(member));
            if (!isFinished(path)) members.insert(std::move(path));
        }
    }
    knownFor = loadCount();
    return members;
}

bool isMember(const Json::Value& paths, const std::string& path) {
    constexpr Json::ArrayIndex kFew = 16;
    if (paths.size() > kFew && unfinishedMembers().count(path) == 0) return false;
    return std::any_of(paths.begin(), paths.end(),
                       [&path](const Json::Value& member) { return textOf(member) == path; });
}

void joinGroup(const char* digest, int64_t fileBytes, const std::string& path) {
    Json::Value& group = asObject(checkNoCompressDB.change())[digest];
    if (!group.isObject()) {
        makeGroup(group, fileBytes, path);
        return;
    }
    Json::Value& paths = group["f_list"];
    if (!paths.isArray()) paths = Json::Value(Json::arrayValue);
    if (!isMember(paths, path)) paths.append(path);
}

}  // namespace

Judgement judge(const std::string& path, const PatternList& regs, const PatternList& blackList,
                bool mayBeFinished) {
    Judgement judgement;
    if (mayBeFinished && isFinished(path)) return judgement;
    if (!regs.matches(path, judgement.tooLong) || isLeftover(path)) return judgement;
    if (!isStorablePath(path)) {
        judgement.need = Need::NotStorable;
    } else {
        judgement.need = blackList.matches(path, judgement.tooLong) ? Need::Record : Need::Digest;
    }
    return judgement;
}

void calculateFileMD5(const std::string& path, std::string_view name, const struct stat& st,
                      const Judgement& judgement, const std::function<FileMD5Result()>& digest) {
    if (!judgement.tooLong.empty() && isFinished(path)) return;
    for (const std::string* pattern : judgement.tooLong)
        RUX_LOGE("pattern %s takes too long for %s", pattern->c_str(), path.c_str());
    if (judgement.need == Need::Nothing) return;
    if (judgement.need == Need::NotStorable) {
        RUX_LOGD("the path %s is not valid UTF-8, skip", path.c_str());
        return;
    }
    Json::Value& record = asObject(fileInfoDB.change())[path];
    if (hasDigest(record)) return;  // the same path has been met twice
    makeFileRecord(record, st.st_mtime, suffixOf(name.empty() ? path : name));
    if (judgement.need == Need::Record) {
        RUX_LOGD("the file is in black list");
        return;
    }
    const FileMD5Result result = digest();
    if (result.code != 0) {
        RUX_LOGD("cal md5 error code != 0, continue");
        return;
    }
    joinGroup(result.md5, st.st_size, path);
    setHasDigest(record);  // last: until then the path may be found to be an unfinished member
}

}  // namespace rux
