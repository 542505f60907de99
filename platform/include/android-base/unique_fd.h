/// A file descriptor with one owner.
#pragma once

#include <unistd.h>

#include <utility>

namespace android::base {

class unique_fd {
  public:
    unique_fd() = default;
    explicit unique_fd(int fd) : mFd(fd) {}
    unique_fd(unique_fd&& other) noexcept : mFd(other.release()) {}
    unique_fd& operator=(unique_fd&& other) noexcept {
        if (this != &other) reset(other.release());
        return *this;
    }
    ~unique_fd() { reset(); }

    int get() const { return mFd; }
    bool ok() const { return mFd >= 0; }
    /// Gives the descriptor up without closing it.
    int release() { return std::exchange(mFd, -1); }
    void reset(int fd = -1) {
        if (mFd >= 0) close(mFd);
        mFd = fd;
    }

  private:
    int mFd = -1;
};

}  // namespace android::base
