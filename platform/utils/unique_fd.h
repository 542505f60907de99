/// A file descriptor with one owner.
#pragma once

#include <unistd.h>

#include <utility>

namespace android::host {

class UniqueFd {
  public:
    UniqueFd() = default;
    explicit UniqueFd(int fd) : mFd(fd) {}
    UniqueFd(UniqueFd&& other) noexcept : mFd(std::exchange(other.mFd, -1)) {}
    UniqueFd& operator=(UniqueFd&& other) noexcept {
        if (this != &other) reset(std::exchange(other.mFd, -1));
        return *this;
    }
    ~UniqueFd() { reset(); }

    int get() const { return mFd; }
    bool valid() const { return mFd >= 0; }
    /// Gives the descriptor up without closing it.
    int release() { return std::exchange(mFd, -1); }
    void reset(int fd = -1) {
        if (mFd >= 0) close(mFd);
        mFd = fd;
    }

  private:
    int mFd = -1;
};

}  // namespace android::host
