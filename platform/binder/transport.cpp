#include "binder/transport.h"

#include <fcntl.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/resource.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <system_error>
#include <thread>

namespace android::host {
namespace {

constexpr size_t kMaxConnections = 512;
constexpr size_t kMaxBufferedBytes = size_t{64} << 20;  // of frames not yet whole or not yet sent
constexpr int kEventsPerWait = 64;
constexpr int kExpectedDescriptors = 4096;

// What an epoll event is about: connections count up from kFirstConnection, the listeners are told
// by the topmost bit.
constexpr uint64_t kWakeId = 0;
constexpr uint64_t kFirstConnection = 1;
constexpr uint64_t kListenerBit = uint64_t{1} << 63;

/// Raises the limit on descriptors as far as it goes, and tells how many that is. Has the kernel
/// make its table large while there is one thread: later, to enlarge it holds the caller up for
/// many milliseconds.
size_t raiseDescriptorLimit() {
    rlimit limit = {};
    getrlimit(RLIMIT_NOFILE, &limit);
    limit.rlim_cur = limit.rlim_max;
    setrlimit(RLIMIT_NOFILE, &limit);
    getrlimit(RLIMIT_NOFILE, &limit);
    close(fcntl(STDERR_FILENO, F_DUPFD_CLOEXEC, kExpectedDescriptors));
    return limit.rlim_cur;
}

base::unique_fd openSpare() {
    return base::unique_fd(open("/dev/null", O_RDONLY | O_CLOEXEC));
}

/// True for root and for the user that the service runs as.
bool isServed(const ucred& peer) {
    return peer.uid == 0 || peer.uid == geteuid();
}

}  // namespace

Caller& currentCaller() {
    thread_local Caller caller = {getuid(), getpid()};
    return caller;
}

Transport& Transport::self() {
    // Never destroyed: its threads live as long as the process.
    static auto* const instance = new Transport();
    return *instance;
}

Transport::Transport()
      : mEpoll(epoll_create1(EPOLL_CLOEXEC)),
        mWake(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)),
        mSpare(openSpare()),
        mMaxConnections(std::min(kMaxConnections, raiseDescriptorLimit() / 2)),
        mNextId(kFirstConnection) {
    epoll_event event = {};
    event.events = EPOLLIN;
    event.data.u64 = kWakeId;
    epoll_ctl(mEpoll.get(), EPOLL_CTL_ADD, mWake.get(), &event);
}

status_t Transport::listen(base::unique_fd listener, const sp<IBinder>& target) {
    const std::lock_guard lock(mMutex);
    epoll_event event = {};
    event.events = EPOLLIN;
    event.data.u64 = kListenerBit | mListeners.size();
    if (epoll_ctl(mEpoll.get(), EPOLL_CTL_ADD, listener.get(), &event) != 0) return -errno;
    mListeners.push_back(std::make_unique<Listener>(Listener{std::move(listener), target}));
    try {
        if (!mRunning) std::thread(&Transport::run, this).detach();
    } catch (const std::system_error& none) {
        return -none.code().value();
    }
    mRunning = true;
    return OK;
}

void Transport::serve() {
    while (auto job = mJobs.pop()) {
        Caller& caller = currentCaller();
        const Caller self = caller;
        caller = job->caller;
        Reply reply = {job->connection, (job->flags & IBinder::FLAG_ONEWAY) == 0, OK,
                       std::make_unique<Parcel>()};
        reply.status =
                job->target->transact(job->code, *job->request, reply.parcel.get(), job->flags);
        caller = self;
        if (reply.status != OK) reply.parcel->setDataSize(0);
        job.reset();
        {
            const std::lock_guard lock(mMutex);
            mReplies.push_back(std::move(reply));
        }
        eventfd_write(mWake.get(), 1);
    }
}

void Transport::run() {
    epoll_event events[kEventsPerWait];
    while (true) {
        const int count = epoll_wait(mEpoll.get(), events, kEventsPerWait, -1);
        if (count < 0 && errno != EINTR) break;
        for (int i = 0; i < count; ++i) {
            const uint64_t id = events[i].data.u64;
            ++mClock;
            if (id == kWakeId) {
                deliverReplies();
            } else if ((id & kListenerBit) != 0) {
                const Listener* listener = nullptr;
                {
                    const std::lock_guard lock(mMutex);
                    listener = mListeners[id & ~kListenerBit].get();
                }
                acceptFrom(*listener);
            } else {
                onEvents(id, events[i].events);
            }
        }
    }
    mJobs.close();
}

/// Takes one waiting client; the rest of the queue raises the event again.
void Transport::acceptFrom(const Listener& listener) {
    constexpr int kFlags = SOCK_CLOEXEC | SOCK_NONBLOCK;
    base::unique_fd socket(accept4(listener.socket.get(), nullptr, nullptr, kFlags));
    const bool outOfDescriptors = !socket.ok() && (errno == EMFILE || errno == ENFILE);
    if (outOfDescriptors && endIdlest(0)) {
        socket.reset(accept4(listener.socket.get(), nullptr, nullptr, kFlags));
    }
    if (outOfDescriptors && !socket.ok()) {
        // Nobody can be served, but the client must not wait for ever, nor this thread spin.
        mSpare.reset();
        socket.reset(accept4(listener.socket.get(), nullptr, nullptr, kFlags));
        socket.reset();
        mSpare = openSpare();
        return;
    }
    if (socket.ok()) admit(std::move(socket), listener.target);
}

/// Makes a connection of an accepted client, unless it is nobody's business to be here.
void Transport::admit(base::unique_fd socket, const sp<IBinder>& target) {
    ucred peer = {};
    socklen_t size = sizeof(peer);
    if (getsockopt(socket.get(), SOL_SOCKET, SO_PEERCRED, &peer, &size) != 0 || !isServed(peer)) {
        return;
    }
    if (mConnections.size() >= mMaxConnections && !endIdlest(0)) return;

    const uint64_t id = mNextId++;
    epoll_event event = {};
    event.events = EPOLLIN;
    event.data.u64 = id;
    if (epoll_ctl(mEpoll.get(), EPOLL_CTL_ADD, socket.get(), &event) != 0) return;
    auto connection =
            std::make_unique<Connection>(std::move(socket), target, Caller{peer.uid, peer.pid});
    connection->lastActivity = mClock;
    mConnections.emplace(id, std::move(connection));
}

void Transport::onEvents(uint64_t id, uint32_t events) {
    const auto found = mConnections.find(id);
    if (found == mConnections.end()) return;  // ended by an earlier event of the same batch
    Connection& connection = *found->second;
    connection.lastActivity = mClock;
    switch (connection.state()) {
        case Connection::State::Reading:
            return onReadable(id, connection);
        case Connection::State::Writing:
            return onWritable(id, connection);
        case Connection::State::Serving:
            // Only a hang-up is reported now. The call goes on; its reply will find nobody.
            if ((events & (EPOLLHUP | EPOLLERR)) != 0) end(id);
            return;
    }
}

void Transport::onReadable(uint64_t id, Connection& connection) {
    switch (connection.read()) {
        case Connection::Progress::Broken:
            return end(id);
        case Connection::Progress::Pending:
            return keepWithinBudget(id);
        case Connection::Progress::Done:
            break;
    }
    Job job = {id, connection.target(), 0, 0, connection.caller(), std::make_unique<Parcel>()};
    const RequestHeader request = connection.takeRequest(job.request.get());
    job.code = request.code;
    job.flags = request.flags;
    watch(id, connection);
    mJobs.push(std::move(job));
}

void Transport::onWritable(uint64_t id, Connection& connection) {
    switch (connection.write()) {
        case Connection::Progress::Broken:
            return end(id);
        case Connection::Progress::Pending:
        case Connection::Progress::Done:
            return watch(id, connection);
    }
}

void Transport::deliverReplies() {
    eventfd_t count = 0;
    eventfd_read(mWake.get(), &count);
    std::vector<Reply> replies;
    {
        const std::lock_guard lock(mMutex);
        replies.swap(mReplies);
    }
    for (const Reply& reply : replies) {
        const auto found = mConnections.find(reply.connection);
        if (found == mConnections.end()) continue;  // the client died meanwhile
        Connection& connection = *found->second;
        connection.lastActivity = mClock;
        if (reply.wanted) {
            connection.startReply(reply.status, *reply.parcel);
            onWritable(reply.connection, connection);
            keepWithinBudget(reply.connection);
        } else {
            connection.skipReply();
            watch(reply.connection, connection);
        }
    }
}

/// Asks for the events that matter in the connection's state.
void Transport::watch(uint64_t id, const Connection& connection) {
    epoll_event event = {};
    event.data.u64 = id;
    if (connection.state() == Connection::State::Reading) event.events = EPOLLIN;
    if (connection.state() == Connection::State::Writing) event.events = EPOLLOUT;
    epoll_ctl(mEpoll.get(), EPOLL_CTL_MOD, connection.socket(), &event);
}

void Transport::end(uint64_t id) {
    mConnections.erase(id);
}

/// Ends the connection that has been idle for longest, one that is being served or `except` aside.
bool Transport::endIdlest(uint64_t except) {
    auto idlest = mConnections.end();
    for (auto it = mConnections.begin(); it != mConnections.end(); ++it) {
        const bool idle = it->second->state() != Connection::State::Serving && it->first != except;
        if (idle && (idlest == mConnections.end() ||
                     it->second->lastActivity < idlest->second->lastActivity)) {
            idlest = it;
        }
    }
    if (idlest == mConnections.end()) return false;
    mConnections.erase(idlest);
    return true;
}

/// Ends idle connections until the unfinished frames of all of them fit into the memory allowed.
void Transport::keepWithinBudget(uint64_t current) {
    const auto bufferedBytes = [this] {
        size_t total = 0;
        for (const auto& [id, connection] : mConnections) total += connection->bufferedBytes();
        return total;
    };
    while (bufferedBytes() > kMaxBufferedBytes && endIdlest(current)) {
    }
}

}  // namespace android::host
