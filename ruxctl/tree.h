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

namespace ruxctl {

/// Walks the places as a scan does, but through each directory once, on a thread of its own.
class TreeCount {
  public:
    /// Takes files of at least so many bytes into account.
    TreeCount(std::vector<std::string> places, uint64_t leastBytes);
    ~TreeCount();
    TreeCount(const TreeCount&) = delete;
    TreeCount& operator=(const TreeCount&) = delete;

    /// Bytes of all files; 0 as long as they are being counted.
    int64_t bytes() const { return mIsDone ? mBytes : 0; }
    /// The paths of the files. Waits for the end.
    const std::vector<std::string>& files();
    /// What a scan has to leave out, each with its reason, in words. Waits for the end.
    const std::vector<std::pair<std::string, std::string>>& leftOut();

  private:
    void add(const std::string& path);

    const uint64_t mLeastBytes;
    int64_t mBytes = 0;
    std::vector<std::string> mFiles;
    std::vector<std::pair<std::string, std::string>> mLeftOut;
    std::set<std::pair<dev_t, ino_t>> mSeen;  // directories
    std::atomic<bool> mIsDone{false};
    std::atomic<bool> mIsStopped{false};
    std::thread mThread;
};

}  // namespace ruxctl
