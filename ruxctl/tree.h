/// What a scan will meet, counted beside it.
#pragma once

#include <sys/stat.h>
#include <sys/types.h>

#include <atomic>
#include <cstdint>
#include <map>
#include <set>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "ruxctl/commands.h"
#include "ruxctl/paths.h"

namespace ruxctl {

/// Walks the places as a scan does, but through each directory once, on a thread of its own.
class TreeCount {
  public:
    /// Watches for files that match each of the globs. Without `countsBytes` it looks at the sizes
    /// of files only where they decide.
    TreeCount(std::vector<std::string> places, const Reach& reach,
              const std::vector<std::string>& globs, bool countsBytes);
    ~TreeCount();
    TreeCount(const TreeCount&) = delete;
    TreeCount& operator=(const TreeCount&) = delete;

    /// Bytes of all files that will be read; 0 as long as they are being counted.
    int64_t bytes() const { return mIsDone ? mBytes : 0; }

    /// Waits for the end. Then the others may be asked for.
    void finish();
    /// What a scan has to leave out, each with its reason, in words.
    const std::vector<std::pair<std::string, std::string>>& leftOut() const { return mLeftOut; }
    /// Symbolic links that are not followed.
    const std::vector<std::string>& unfollowed() const { return mUnfollowed; }
    /// Files that symbolic links lead to and that do not lie below the places.
    int64_t outside() const { return mOutside; }
    /// Large files whose size no other has.
    int64_t lone() const;
    /// Globs that no file has matched.
    std::vector<std::string> unmatched() const;

  private:
    void walk();
    void add(const std::string& path, unsigned char type, dev_t device, bool isOutside);
    void addThere(const std::string& path, const struct stat& st, dev_t device, bool isOutside);
    void addFile(const std::string& path, bool isOutside);
    void addDirectory(const std::string& path, const struct stat& st, dev_t device, bool isOutside);

    const std::vector<std::string> mPlaces;
    const Reach mReach;
    const bool mCountsBytes;
    Places mRealPlaces;  // without symbolic links, where these are followed
    int64_t mBytes = 0;
    int64_t mOutside = 0;
    std::map<int64_t, int64_t> mLarge;  // files, by size
    std::vector<std::pair<std::string, std::string>> mLeftOut;
    std::vector<std::string> mUnfollowed;
    std::vector<std::pair<std::string, PathPatterns>> mUnmatched;  // globs
    std::set<std::pair<dev_t, ino_t>> mSeen;                       // directories
    std::atomic<bool> mIsDone{false};
    std::atomic<bool> mIsStopped{false};
    std::thread mThread;
};

}  // namespace ruxctl
