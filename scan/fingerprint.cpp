#include "scan/fingerprint.h"

#include <algorithm>
#include <string_view>

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

bool hasDigest(const std::string& path) {
    const Json::Value* record = memberOf(fileInfoDB, path);
    const Json::Value* flag = record != nullptr ? memberOf(*record, "is_md5") : nullptr;
    return flag != nullptr && integerOf(*flag) == 1;
}

/// The text after the last "." when that looks like the kind of a file, otherwise "nosuffix".
std::string suffixOf(const std::string& name) {
    constexpr size_t kLongest = 10;
    const size_t point = name.rfind('.');
    if (point == std::string::npos) return "nosuffix";
    std::string suffix = name.substr(point + 1);
    const bool fits =
            !suffix.empty() && suffix.size() <= kLongest && suffix.find('/') == std::string::npos;
    return fits ? suffix : "nosuffix";
}

void joinGroup(const char* digest, int64_t fileBytes, const std::string& path) {
    Json::Value& group = asObject(checkNoCompressDB)[digest];
    if (!group.isObject()) {
        group = newGroup(fileBytes, path);
        return;
    }
    Json::Value& paths = group["f_list"];
    if (!paths.isArray()) paths = Json::Value(Json::arrayValue);
    const bool known = std::any_of(paths.begin(), paths.end(), [&path](const Json::Value& member) {
        const char* begin = nullptr;
        const char* end = nullptr;
        return member.isString() && member.getString(&begin, &end) &&
               path == std::string_view(begin, static_cast<size_t>(end - begin));
    });
    if (!known) paths.append(path);
}

}  // namespace

Judgement judge(const std::string& path, const PatternList& regs, const PatternList& blackList) {
    Judgement judgement;
    if (hasDigest(path) || !regs.matches(path, judgement.tooLong) || isLeftover(path))
        return judgement;
    if (!isStorablePath(path)) {
        judgement.need = Need::NotStorable;
    } else {
        judgement.need = blackList.matches(path, judgement.tooLong) ? Need::Record : Need::Digest;
    }
    return judgement;
}

void calculateFileMD5(const std::string& path, const std::string& name, const struct stat& st,
                      const Judgement& judgement, const std::function<FileMD5Result()>& digest) {
    if (hasDigest(path)) return;  // the same path has been met twice
    for (const std::string* pattern : judgement.tooLong)
        RUX_LOGE("pattern %s takes too long for %s", pattern->c_str(), path.c_str());
    if (judgement.need == Need::Nothing) return;
    if (judgement.need == Need::NotStorable) {
        RUX_LOGD("the path %s is not valid UTF-8, skip", path.c_str());
        return;
    }
    Json::Value& record = asObject(fileInfoDB)[path];
    record = newFileRecord(st.st_mtime, suffixOf(name.empty() ? path : name));
    if (judgement.need == Need::Record) {
        RUX_LOGD("the file is in black list");
        return;
    }
    const FileMD5Result result = digest();
    if (result.code != 0) {
        RUX_LOGD("cal md5 error code != 0, continue");
        return;
    }
    record["is_md5"] = 1;
    joinGroup(result.md5, st.st_size, path);
}

}  // namespace rux
