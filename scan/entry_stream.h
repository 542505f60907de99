/// The entries below a directory.
#pragma once

#include <dirent.h>
#include <sys/stat.h>

#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "request/rules.h"

namespace rux {

/// What a directory holds.
struct Entry {
    enum class Kind : uint8_t {
        Skipped,          // "." or "..", or out of the walk's reach
        Unreadable,       // its status cannot be read
        Empty,            // a file without content
        Device,           // or a pipe or socket: no file that has content
        ClosedDirectory,  // cannot be opened, or is not to be entered again
        Directory,        // its own entries follow
        File,             // with content
        Regular,          // a regular file by its directory; its status is not read yet
        NoDirectory,      // no directory; its status is not read yet
    };
    Kind kind = Kind::NoDirectory;
    bool needsStatus() const { return kind >= Kind::Regular; }
    size_t depth = 0;      // of the directory that it is in, 1 for the start
    std::string path;      // of what is no directory
    std::string realPath;  // without symbolic links, where `path` has some and it is wanted
};

/// The kind of an entry that is no directory, or whose directory cannot be entered.
Entry::Kind kindOf(const struct stat& status, const Reach& reach);

/// open(2) for reading without a change of the access time, where that is granted.
int openQuietly(int above, const char* name, int flags);

/// The path without symbolic links; nothing when it has none, or leads nowhere.
std::string realPathOf(const std::string& path);

/// Walks a tree depth first, in the order of the directories, symbolic links followed. A directory
/// that is on the current path already is not entered again, and one behind links at most 16 times:
/// some dozens of links in some dozens of directories make more paths than anybody can walk.
class EntryStream {
  public:
    /// Opens the directory `start`.
    EntryStream(const std::string& start, const Reach& reach, bool wantsRealPaths = false);

    /// Whether there is something to walk: `start` could be opened.
    bool isOpen() const { return !mLevels.empty(); }

    /// The next entry; nothing at the end of the walk.
    std::optional<Entry> next();

    /// Leaves out what is left of the directory that is `depth` levels below the start (1 for the
    /// start itself). `ahead` are the entries that were read from there on; what of them lies
    /// behind the directory comes again.
    void leaveDirectory(size_t depth, std::deque<Entry> ahead);

  private:
    using Stream = std::unique_ptr<DIR, int (*)(DIR*)>;

    /// A directory on the path from the start to the entry under examination.
    struct Level {
        Stream stream;
        dev_t device;
        ino_t inode;
        size_t pathLength;     // of its own path, to which the entries' names are added
        bool isBehindLink;     // it or one above it was entered by a symbolic link
        std::string realPath;  // where it differs from its own, and is wanted
    };

    Entry entryOf(const dirent& found);
    Entry::Kind enter(int above, const char* name, bool isBehindLink, const std::string& realPath);
    bool isOnPath(const struct stat& status) const;

    std::deque<Entry> mAhead;  // to come before those that are not read yet
    std::vector<Level> mLevels;
    std::string mPath;
    const Reach& mReach;
    const bool mWantsRealPaths;
    std::map<std::pair<dev_t, ino_t>, int> mEntered;  // directories behind links, and how often
};

}  // namespace rux
