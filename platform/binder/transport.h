/// The server side of the transport: one thread for all sockets, any number for the transactions.
#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <vector>

#include "android-base/unique_fd.h"
#include "binder/connection.h"
#include "binder/job_queue.h"

namespace android::host {

/// The I/O thread accepts clients, checks who they are, gathers whole requests and sends replies,
/// and never waits for any one of them. A pool thread is taken by a whole request only, so clients
/// that are silent, slow or gone cost a descriptor and some memory, and both are bounded: past the
/// bound the connection that has been idle for longest is ended.
class Transport {
  public:
    /// The process's transport; its I/O thread is started by the first `listen`.
    static Transport& self();

    /// Serves `target` to the clients of `listener`, a listening socket. Returns a status.
    status_t listen(base::unique_fd listener, const sp<IBinder>& target);

    /// Serves transactions on the calling thread until the transport ends.
    void serve();

  private:
    struct Reply {
        uint64_t connection;
        bool wanted;  // false after a one-way request
        status_t status;
        std::unique_ptr<Parcel> parcel;
    };
    struct Listener {
        base::unique_fd socket;
        sp<IBinder> target;
    };

    Transport();

    void run();
    void acceptFrom(const Listener& listener);
    void admit(base::unique_fd socket, const sp<IBinder>& target);
    void onEvents(uint64_t id, uint32_t events);
    void onReadable(uint64_t id, Connection& connection);
    void onWritable(uint64_t id, Connection& connection);
    void deliverReplies();
    void watch(uint64_t id, const Connection& connection);
    void end(uint64_t id);
    bool endIdlest(uint64_t except);
    void keepWithinBudget(uint64_t current);

    std::mutex mMutex;  // guards mListeners, mReplies and the start of the I/O thread
    std::vector<std::unique_ptr<Listener>> mListeners;
    std::vector<Reply> mReplies;
    bool mRunning = false;

    JobQueue mJobs;
    base::unique_fd mEpoll;
    base::unique_fd mWake;   // an eventfd: replies are waiting
    base::unique_fd mSpare;  // given up for a moment to turn a client away when descriptors run out
    size_t mMaxConnections = 0;

    // Of the I/O thread alone.
    std::map<uint64_t, std::unique_ptr<Connection>> mConnections;
    uint64_t mNextId = 0;
    uint64_t mClock = 0;  // counts events
};

}  // namespace android::host
