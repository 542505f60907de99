/// The entries of the images: what they hold, and reading them whatever they hold.
#pragma once

#include <json/json.h>

#include <cstdint>
#include <optional>
#include <string>

namespace rux {

/// The "f_list" of a group record, an array of the paths of its members in the order in which they
/// joined; null when the record has none.
const Json::Value* groupPaths(const Json::Value& group);

/// The "f_size" of a group record, the size in bytes of one member; never negative.
int64_t groupFileBytes(const Json::Value& group);

/// A member's path as "f_list" holds it; empty, which no file is called, for what cannot be a path.
std::string pathOf(const Json::Value& entry);

/// Whether a file of that name exists, symbolic links followed.
bool pathExists(const std::string& path);

/// Makes `record` that of the file `path`, without a digest. `mtimeSeconds` is the file's
/// modification time since the epoch.
void makeFileRecord(Json::Value& record, int64_t mtimeSeconds, const std::string& path);

/// Whether a record says that its file has been entered in a group. The second makes it say so.
bool hasDigest(const Json::Value& record);
void setHasDigest(Json::Value& record);

/// Whether the file of that path has a record in DB1 that says so.
bool isFinished(const std::string& path);

/// Makes `group` one without members, of files of that size in bytes.
void makeGroup(Json::Value& group, int64_t fileBytes);

/// The "s_time" of a record, in seconds since the epoch; 0 without one. The second finds the record
/// of `path` in DB1.
int64_t mtimeSecondsOf(const Json::Value& record);
int64_t recordedMtimeSeconds(const std::string& path);

/// Notes in DB4 that `path` was restored, or that the group it led was retired.
enum class Mark : int { Retired = 0, Restored = 1 };
void markModified(const std::string& path, Mark mark);

/// What an entry of DB4 notes.
std::optional<Mark> markOf(const Json::Value& entry);

/// `sum` + `factor` × `count` in bytes, at most what 64 bits hold.
int64_t addBytes(int64_t sum, int64_t factor, int64_t count);

}  // namespace rux
