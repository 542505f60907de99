/// A member of a group: what its path leads to right now.
#pragma once

#include <sys/stat.h>
#include <sys/types.h>

#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

namespace ruxctl {

/// What a path of a group leads to.
enum class State : uint8_t {
    There,    ///< a file of its own, as it was scanned
    Linked,   ///< the same file as another path of the group
    Changed,  ///< of another size or time, or no file
    Gone,     ///< nothing
};
const char* nameOf(State state);

/// What linking the group would do to a path.
enum class Step : uint8_t {
    None,  ///< nothing: it is gone, a symbolic link, or leads to the kept file already
    Keep,  ///< its file is the one that stays
    Link,  ///< it would become a name of the kept file
    Skip,  ///< it would be left alone
};

/// A file, whatever its names: its device and inode.
using FileId = std::pair<dev_t, ino_t>;
/// A name, whatever paths lead to it: its directory and the last part.
using NameId = std::pair<FileId, std::string_view>;

struct Member {
    std::string path;
    State state = State::Gone;
    Step step = Step::None;
    bool isSymlink = false;
    int error = 0;               ///< why it would be left alone: an errno, or kRefused
    std::optional<time_t> time;  ///< recorded, of the last modification
    FileId file;                 ///< unless it is gone
    FileId directory;            ///< likewise
    uint64_t rights = 0;         ///< of two files with the same, one can be kept for the other
    int64_t links = 0;           ///< names that the file has
    int64_t allocated = 0;       ///< bytes of the blocks that no other file has too

    bool isPresent() const { return state == State::There || state == State::Linked; }
    /// As long as the member lives.
    NameId name() const { return {directory, std::string_view(path).substr(path.rfind('/') + 1)}; }
    /// Why it is left alone, in words.
    std::string reason() const;
};
constexpr int kRefused = -1;      ///< by the service, and nobody can see why
constexpr int kKeptChanged = -2;  ///< the file that would be kept has another content by now

FileId idOf(const struct stat& st);

/// Finds the directories of paths, each once.
class Directories {
  public:
    FileId of(std::string_view path);

  private:
    std::map<std::string, FileId, std::less<>> mKnown;
};

/// Fills in what the path leads to, but for `allocated`; a file that was scanned had `fileBytes`.
/// Returns the status of what is there, all zero where nothing is.
struct stat lookAt(Member& member, int64_t fileBytes, Directories& directories);

/// Whether files may share blocks on the file system of the path, which copies on write: a copy may
/// take up none, and a snapshot may keep those of a file.
bool sharesBlocks(const std::string& path);
/// The bytes of blocks that the file has alone (Documentation/filesystems/fiemap.rst of the
/// kernel).
int64_t ownBytes(const std::string& path, const struct stat& st);

}  // namespace ruxctl
