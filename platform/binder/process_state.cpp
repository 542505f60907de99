#include "binder/ProcessState.h"

#include <malloc.h>

#include <csignal>
#include <system_error>
#include <thread>

#include "binder/IPCThreadState.h"
#include "binder/caller.h"
#include "binder/transport.h"

namespace android {

sp<ProcessState> ProcessState::self() {
    static const sp<ProcessState> instance = sp<ProcessState>::make();
    return instance;
}

status_t ProcessState::setThreadPoolMaxThreadCount(size_t maxThreads) {
    mMaxThreads = maxThreads;
    return OK;
}

void ProcessState::startThreadPool() {
    if (mStarted) return;
    mStarted = true;
    // What one pool thread allocates another frees, a whole database at times. With an arena for
    // each thread, memory that is free in one would be of no use to the others.
    mallopt(M_ARENA_MAX, 1);
    signal(SIGXFSZ, SIG_IGN);  // a limit on file size fails the write, not the process
    signal(SIGPIPE, SIG_IGN);  // nor does a log that nobody reads any more
    try {
        for (size_t i = 0; i < mMaxThreads; ++i)
            std::thread([] { IPCThreadState::self()->joinThreadPool(false); }).detach();
    } catch (const std::system_error&) {  // the threads that there are serve, the main one at least
    }
}

IPCThreadState* IPCThreadState::self() {
    static IPCThreadState instance;  // without state of its own: the caller is the thread's
    return &instance;
}

void IPCThreadState::joinThreadPool(bool /*isMain*/) {
    host::Transport::self().serve();
}

uid_t IPCThreadState::getCallingUid() const {
    return host::currentCaller().uid;
}

pid_t IPCThreadState::getCallingPid() const {
    return host::currentCaller().pid;
}

}  // namespace android
