/// What is done about files that take long to read.
#pragma once

#include <sys/types.h>

#include <chrono>

namespace android::host {

/// The reading of one file, which can be given up and is named in the log after ten seconds.
class LongFile {
  public:
    /// Counts `bytes` more of the open file `file`. ECANCELED when the caller of the library wants
    /// no more of it, which is asked ten times a second; else 0.
    int count(int file, size_t bytes);

  private:
    using Clock = std::chrono::steady_clock;
    off_t mBytes = 0;
    Clock::time_point mStart;
    Clock::time_point mAsked;
    bool mIsNamed = false;
};

}  // namespace android::host
