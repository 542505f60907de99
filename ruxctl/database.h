/// The spaces as their database files show them.
#pragma once

#include <json/json.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <ctime>
#include <functional>
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

/// How many restored files are left alone in it.
int64_t setAsideCount(const std::string& spaceId);
/// The paths that a space has records of.
std::vector<std::string> recordedPaths(const std::string& spaceId);

/// The files of a space: records by path, groups by digest, those that have been linked, and marks
/// by path.
enum Image : size_t { kRecords, kToCompress, kCompressed, kModified };

/// What some files of a space say, all of one moment. They are read here, and taken apart bit by
/// bit, so that a large one needs little more memory than its text.
class SpaceTexts {
  public:
    SpaceTexts(const std::string& spaceId, const std::vector<Image>& images);

    const std::string& operator[](Image image) const { return mTexts[image]; }

    /// Throws std::runtime_error for a file that is damaged.
    using Take = std::function<void(const std::string& name, const Json::Value& value)>;
    void forEach(Image image, const Take& take) const;
    /// The same for the groups of several paths.
    using TakeGroup = std::function<void(const std::string& digest, int64_t fileBytes,
                                         std::vector<std::string> paths)>;
    void forEachGroup(Image image, const TakeGroup& take) const;

  private:
    void forEachIn(const std::string& text, Image image, const Take& take) const;

    std::string mSpaceId;
    std::array<std::string, kModified + 1> mTexts;
};

/// How many files there are records of.
int64_t recordCount(const SpaceTexts& texts);
/// How many of them were not read, so that no digest of them is known.
int64_t unreadCount(const SpaceTexts& texts);

/// Makes the next scan of the space find everything anew. What links there are stays known, unless
/// `links` are to be forgotten too. No operation may be running. False with errno set when a file
/// cannot be removed.
bool forgetRecords(const std::string& spaceId, bool links);

/// The exception patterns of the device. The second removes them all: false with errno set when it
/// cannot.
std::vector<std::string> exceptionRules();
bool removeExceptionRules();

}  // namespace ruxctl
