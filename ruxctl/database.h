/// The spaces as their database files show them, and the files that these name as they are now.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <ctime>
#include <map>
#include <string>
#include <tuple>
#include <utility>
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
};

/// The names of all spaces that have been scanned, sorted.
std::vector<std::string> spaceIds();
/// What is known of a space. Reads all of its files.
Space lookAt(const std::string& spaceId);
/// Whether the space has a directory.
bool exists(const std::string& spaceId);

/// How many files a space has records of.
int64_t recordCount(const std::string& spaceId);
/// Their paths.
std::vector<std::string> recordedPaths(const std::string& spaceId);

/// What a path of a group leads to.
enum class State {
    There,    ///< a file of its own, as it was scanned
    Linked,   ///< the same file as another path of the group
    Changed,  ///< of another size or time, or no file
    Gone,     ///< nothing
};
const char* nameOf(State state);

/// A file, whatever its names: its device and inode.
using FileId = std::pair<dev_t, ino_t>;

struct Member {
    std::string path;
    State state = State::Gone;
    FileId file;                              ///< unless it is gone
    int64_t links = 0;                        ///< names that the file has
    std::tuple<uid_t, gid_t, mode_t> access;  ///< only files that have the same are linked
    bool isPresent() const { return state == State::There || state == State::Linked; }
};

/// Files of identical content.
struct Group {
    std::string spaceId;
    std::string digest;
    int64_t fileBytes = 0;
    bool compressed = false;  ///< whether the service has linked it
    std::vector<Member> members;
    int64_t present = 0;      ///< members that are there or linked
    int64_t files = 0;        ///< different files among them
    int64_t reclaimable = 0;  ///< bytes that linking would still give back: all but one file
    /// Bytes that links have given back: the names beyond the first of each file. Two paths may
    /// lead to one name, by way of symbolic links.
    int64_t given = 0;
};

enum class Which { ToCompress, Compressed, All };
/// The groups with more than one path, members looked up. Throws std::runtime_error for a database
/// that cannot be read.
std::vector<Group> groupsOf(const std::string& spaceId, Which which);

/// A file that paths of groups lead to.
struct FileUse {
    int64_t allocated = 0;  ///< bytes of its blocks (stat(2), st_blocks)
    int64_t links = 0;      ///< its names, wherever they are
    int64_t names = 0;      ///< those of them that are paths of the groups
};
using DiskUse = std::map<FileId, FileUse>;
/// The regular files that the groups' paths, or those of one group, lead to right now.
DiskUse diskUse(const std::vector<Group>& groups);
DiskUse diskUse(const Group& group);
/// Bytes of the blocks of the files that were there before, are no more, and had no other names.
int64_t givenBack(const DiskUse& before, const DiskUse& after);
/// Bytes that are taken up when each path gets data of its own.
int64_t takenUpByRestore(const DiskUse& use);

/// The exception patterns of the device.
std::vector<std::string> exceptionRules();

}  // namespace ruxctl
