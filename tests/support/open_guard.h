/// Holding a program while it opens a file.
#pragma once

#include <fcntl.h>
#include <sys/fanotify.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <set>
#include <string>
#include <thread>

namespace rux::test {

/// Lets this process and another one open `path`, and holds the next program that wants to until
/// the object goes: after it has looked the name up, and before it meets a lease (fanotify(7)).
class OpenGuard {
  public:
    explicit OpenGuard(const std::string& path, pid_t other = -1) : mAllowed{getpid(), other} {
        mGroup = fanotify_init(FAN_CLASS_CONTENT | FAN_CLOEXEC | FAN_NONBLOCK, O_RDONLY);
        mWorks = mGroup >= 0 &&
                 fanotify_mark(mGroup, FAN_MARK_ADD, FAN_OPEN_PERM, AT_FDCWD, path.c_str()) == 0;
        if (mWorks) mThread = std::thread([this] { run(); });
    }
    ~OpenGuard() {
        mIsOver = true;
        if (mThread.joinable()) mThread.join();
        close(mGroup);
    }
    OpenGuard(const OpenGuard&) = delete;
    OpenGuard& operator=(const OpenGuard&) = delete;

    bool works() const { return mWorks; }  // for root alone
    bool holds() const { return mHeld >= 0; }

  private:
    void run() {
        fanotify_event_metadata event = {};
        while (!mIsOver) {
            if (read(mGroup, &event, sizeof(event)) != ssize_t{sizeof(event)}) {
                std::this_thread::sleep_for(std::chrono::milliseconds(1));
            } else if (mAllowed.contains(event.pid)) {
                allow(event.fd);
            } else {
                mHeld = event.fd;
            }
        }
        if (holds()) allow(mHeld);
    }
    void allow(int file) const {
        const fanotify_response response = {file, FAN_ALLOW};
        if (write(mGroup, &response, sizeof(response)) > 0) close(file);
    }

    const std::set<pid_t> mAllowed;
    int mGroup = -1;
    bool mWorks = false;
    std::atomic<bool> mIsOver{false};
    std::atomic<int> mHeld{-1};
    std::thread mThread;
};

}  // namespace rux::test
