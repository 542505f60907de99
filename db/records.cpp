#include "db/records.h"

#include <unistd.h>

#include <algorithm>

#include "db/images.h"
#include "db/json_text.h"

namespace rux {
namespace {

constexpr int kVersion = 1;  // of every entry, in "V"

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
    return access(path.c_str(), F_OK) == 0;
}

Json::Value newFileRecord(int64_t mtimeSeconds, const std::string& suffix) {
    Json::Value record(Json::objectValue);
    record["V"] = kVersion;
    record["s_time"] = static_cast<Json::Int64>(mtimeSeconds);
    record["c_flag"] = 0;
    record["w_flag"] = 0;
    record["reg"] = suffix;
    record["is_md5"] = 0;
    return record;
}

Json::Value newGroup(int64_t fileBytes, const std::string& path) {
    Json::Value group(Json::objectValue);
    group["V"] = kVersion;
    group["f_size"] = static_cast<Json::Int64>(fileBytes);
    group["f_list"].append(path);
    return group;
}

int64_t recordedMtimeSeconds(const std::string& path) {
    const Json::Value* record = memberOf(fileInfoDB, path);
    const Json::Value* time = record != nullptr ? memberOf(*record, "s_time") : nullptr;
    return time != nullptr ? integerOf(*time) : 0;
}

void markModified(const std::string& path, Mark mark) {
    if (path.empty()) return;
    Json::Value& entry = asObject(asObject(modifyFileInfoDB)[path]);
    entry["V"] = kVersion;
    entry["r_flag"] = static_cast<int>(mark);
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
