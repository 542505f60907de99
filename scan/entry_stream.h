/// The entries below a directory.
#pragma once

#include <dirent.h>
#include <sys/stat.h>

#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <string>
#include <utility>
#include <vector>

namespace rux {

/// What a directory stream has given: an entry, or its end.
struct Entry {
    enum class Kind : uint8_t {
        Dot,         // "." or ".."
        Unreadable,  // its status cannot be read
        Unopenable,  // an empty file, a device, or a directory that cannot be opened
        File,        // with content
        Directory,   // the entries that follow are its own, up to its End
        End,         // no entry: there are no more in this directory
        Unknown,     // no directory; its status, which the stream does not read, tells which
    };
    Kind kind = Kind::End;
    bool isRegular = false;  // the directory says that it is a regular file
    std::string path;        // set where the kind is Unknown
    size_t nameStart = 0;    // where its name starts in it
    std::string realPath;    // without symbolic links, where `path` has some and it is wanted
};

/// The kind of an entry with that status which cannot be entered.
Entry::Kind kindOf(const struct stat& status);

/// The path without symbolic links; nothing when it has none, or leads nowhere.
std::string realPathOf(const std::string& path);

/// Walks a tree depth first, in the order of the directories, symbolic links followed. A directory
/// that is on the current path already is not entered again, and one behind links at most 16 times:
/// some dozens of links in some dozens of directories make more paths than anybody can walk.
class EntryStream {
  public:
    /// Opens the directory `start`.
    explicit EntryStream(const std::string& start, bool wantsRealPaths = false);

    /// Whether `start` could be opened as a directory.
    bool isOpen() const { return mIsOpen; }

    /// Appends the next entries to `entries`, up to `count`. False when the walk is at its end.
    bool read(std::deque<Entry>& entries, size_t count);

    /// Leaves out everything up to the end of the directory that is `depth` levels below the start
    /// (1 for the start itself) and that the reader is in. `ahead` are entries that were read
    /// already but have not had their turn.
    void leaveDirectory(size_t depth, std::deque<Entry>& ahead);

  private:
    struct CloseStream {
        void operator()(DIR* stream) const { closedir(stream); }
    };
    using Stream = std::unique_ptr<DIR, CloseStream>;

    /// A directory on the path from the start to the entry under examination.
    struct Level {
        Stream stream;
        dev_t device;
        ino_t inode;
        size_t pathLength;     // of its own path, to which the entries' names are added
        bool isBehindLink;     // it or one above it was entered by a symbolic link
        std::string realPath;  // where it differs from its own, and is wanted
    };

    Entry nextEntry();
    Entry::Kind enter(const char* name, bool byLink, const std::string& realPath);
    bool isOnPath(const struct stat& status) const;

    std::vector<Level> mLevels;
    std::string mPath;
    const bool mWantsRealPaths;
    bool mIsOpen = false;
    std::map<std::pair<dev_t, ino_t>, int> mEntered;  // directories behind links, and how often
};

}  // namespace rux
