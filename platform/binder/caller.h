/// Who is being served by the calling thread.
#pragma once

#include <sys/types.h>

namespace android::host {

struct Caller {
    uid_t uid;
    pid_t pid;
};

/// The sender of the transaction under way on this thread; this process itself outside of one.
Caller& currentCaller();

}  // namespace android::host
