/// The calling thread's side of binder.
#pragma once

#include <sys/types.h>

namespace android {

class IPCThreadState {
  public:
    static IPCThreadState* self();

    /// Makes the calling thread serve transactions. Returns only when the process has no more
    /// transactions to expect.
    void joinThreadPool(bool isMain = true);

    /// Who sent the transaction that this thread is serving; this process itself outside of one.
    uid_t getCallingUid() const;
    pid_t getCallingPid() const;
};

}  // namespace android
