/// The spaces as their database files show them.
#pragma once

#include <json/json.h>

#include <cstdint>
#include <ctime>
#include <string>
#include <vector>

namespace ruxctl {

/// A space, as its database files show it from outside.
struct Space {
    std::string id;
    int64_t files = 0;       ///< that have records
    int64_t toCompress = 0;  ///< groups that may be linked, those of a single file included
    int64_t compressed = 0;  ///< groups that have been linked
    int64_t bytes = 0;       ///< of the database files
    time_t changed = 0;      ///< when the last of them was written
    std::string directory;   ///< below which all recorded files lie
};

/// The names of all spaces that have been scanned, sorted.
std::vector<std::string> spaceIds();
/// What is known of a space. Reads all of its files.
Space lookAt(const std::string& spaceId);
/// Whether the space has a directory.
bool exists(const std::string& spaceId);

/// How many files a space has records of.
int64_t recordCount(const std::string& spaceId);
/// How many restored files are left alone in it.
int64_t setAsideCount(const std::string& spaceId);
/// The paths that a space has records of.
std::vector<std::string> recordedPaths(const std::string& spaceId);

/// The number `name` of an object; 0 when there is none.
int64_t numberOf(const Json::Value& object, const char* name);

/// What a space knows of its files, each an object. Throws std::runtime_error for a database that
/// cannot be read.
struct SpaceImages {
    std::string spaceId;
    Json::Value records;     ///< by path
    Json::Value toCompress;  ///< groups by digest
    Json::Value compressed;  ///< likewise, those that have been linked
};
/// Those of one moment; the groups that have been linked alone unless `all`.
SpaceImages imagesOf(const std::string& spaceId, bool all);

/// Makes the next scan of the space find everything anew. What links there are stays known, unless
/// `links` are to be forgotten too. No operation may be running. False with errno set when a file
/// cannot be removed.
bool forgetRecords(const std::string& spaceId, bool links);

/// The exception patterns of the device.
std::vector<std::string> exceptionRules();

}  // namespace ruxctl
