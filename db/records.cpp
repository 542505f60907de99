#include "db/records.h"

#include <sys/stat.h>

#include <algorithm>
#include <string_view>
#include <utility>

#include "db/images.h"
#include "db/json_text.h"

namespace rux {
namespace {

constexpr int kVersion = 1;  // of every entry, in "V"

// Names that the library need not copy into every record.
const Json::StaticString kVersionName("V");
const Json::StaticString kTime("s_time");
const Json::StaticString kCompressed("c_flag");
const Json::StaticString kWritten("w_flag");
const Json::StaticString kSuffix("reg");
const Json::StaticString kHasDigest("is_md5");
const Json::StaticString kFileBytes("f_size");
const Json::StaticString kPaths("f_list");
const Json::StaticString kMark("r_flag");

/// The text after the last "." when that looks like the kind of a file, otherwise "nosuffix".
std::string suffixOf(std::string_view path) {
    constexpr size_t kLongest = 10;
    const size_t point = path.rfind('.');
    if (point == std::string_view::npos) return "nosuffix";
    const std::string_view suffix = path.substr(point + 1);
    const bool fits = !suffix.empty() && suffix.size() <= kLongest &&
                      suffix.find('/') == std::string_view::npos;
    return fits ? std::string(suffix) : "nosuffix";
}

}  // namespace

const Json::Value* groupPaths(const Json::Value& group) {
    const Json::Value* paths = memberOf(group, "f_list");
    return paths != nullptr && paths->isArray() ? paths : nullptr;
}

int64_t groupFileBytes(const Json::Value& group) {
    const Json::Value* size = memberOf(group, "f_size");
    return size != nullptr ? std::max<int64_t>(0, integerOf(*size)) : 0;
}

std::string pathOf(const Json::Value& entry) {
    if (!entry.isString()) return {};
    std::string path = entry.asString();
    // With a NUL in it, the system would take its beginning for the path of another file.
    if (path.find('\0') != std::string::npos) path.clear();
    return path;
}

bool pathExists(const std::string& path) {
    // Not access(2), which judges by the real user and knows nothing of ambient capabilities.
    struct stat st = {};
    return stat(path.c_str(), &st) == 0;
}

void makeFileRecord(Json::Value& record, int64_t mtimeSeconds, const std::string& path) {
    record = Json::Value(Json::objectValue);
    for (const Json::StaticString& name : {kCompressed, kWritten, kHasDigest}) record[name] = 0;
    record[kVersionName] = kVersion;
    record[kTime] = static_cast<Json::Int64>(mtimeSeconds);
    record[kSuffix] = suffixOf(path);
}

void makeGroup(Json::Value& group, int64_t fileBytes) {
    group = Json::Value(Json::objectValue);
    group[kVersionName] = kVersion;
    group[kFileBytes] = static_cast<Json::Int64>(fileBytes);
    group[kPaths] = Json::Value(Json::arrayValue);
}

bool hasDigest(const Json::Value& record) {
    const Json::Value* flag = memberOf(record, "is_md5");
    return flag != nullptr && integerOf(*flag) == 1;
}

void setHasDigest(Json::Value& record) {
    record[kHasDigest] = 1;
}

bool isFinished(const std::string& path) {
    const Json::Value* record = memberOf(*fileInfoDB, path);
    return record != nullptr && hasDigest(*record);
}

int64_t mtimeSecondsOf(const Json::Value& record) {
    const Json::Value* time = memberOf(record, "s_time");
    return time != nullptr ? integerOf(*time) : 0;
}

int64_t recordedMtimeSeconds(const std::string& path) {
    const Json::Value* record = memberOf(*fileInfoDB, path);
    return record != nullptr ? mtimeSecondsOf(*record) : 0;
}

void markModified(const std::string& path, Mark mark) {
    if (path.empty()) return;
    Json::Value& entry = asObject(asObject(modifyFileInfoDB.change())[path]);
    entry[kVersionName] = kVersion;
    entry[kMark] = static_cast<int>(mark);
}

std::optional<Mark> markOf(const Json::Value& entry) {
    const Json::Value* mark = memberOf(entry, "r_flag");
    if (mark == nullptr) return std::nullopt;
    return integerOf(*mark) == 1 ? Mark::Restored : Mark::Retired;
}

int64_t addBytes(int64_t sum, int64_t factor, int64_t count) {
    int64_t product = 0;
    int64_t result = 0;
    if (__builtin_mul_overflow(factor, count, &product) ||
        __builtin_add_overflow(sum, product, &result)) {
        return INT64_MAX;
    }
    return result;
}

}  // namespace rux
