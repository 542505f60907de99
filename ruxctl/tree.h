/// What a scan will meet, counted beside it.
#pragma once

#include <sys/types.h>

#include <atomic>
#include <cstdint>
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
    TreeCount(std::vector<std::string> places, const Reach& reach);
    ~TreeCount();
    TreeCount(const TreeCount&) = delete;
    TreeCount& operator=(const TreeCount&) = delete;

    /// Bytes of all files; 0 as long as they are being counted.
    int64_t bytes() const { return mIsDone ? mBytes : 0; }

    /// Waits for the end. Then the others may be asked for.
    void finish();
    /// What a scan has to leave out, each with its reason, in words.
    const std::vector<std::pair<std::string, std::string>>& leftOut() const { return mLeftOut; }
    /// Symbolic links that are not followed.
    const std::vector<std::string>& unfollowed() const { return mUnfollowed; }
    /// Files that symbolic links lead to and that do not lie below the places.
    int64_t outside() const { return mOutside; }

  private:
    void walk();
    void add(const std::string& path, dev_t device, bool isOutside);
    void addDirectory(const std::string& path, dev_t device, bool isOutside);

    const std::vector<std::string> mPlaces;
    const Reach mReach;
    Places mRealPlaces;  // without symbolic links
    int64_t mBytes = 0;
    int64_t mOutside = 0;
    std::vector<std::pair<std::string, std::string>> mLeftOut;
    std::vector<std::string> mUnfollowed;
    std::set<std::pair<dev_t, ino_t>> mSeen;  // directories
    std::atomic<bool> mIsDone{false};
    std::atomic<bool> mIsStopped{false};
    std::thread mThread;
};

}  // namespace ruxctl
