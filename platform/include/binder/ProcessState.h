/// The process's side of binder: its pool of threads.
#pragma once

#include <cstddef>

#include "utils/Errors.h"
#include "utils/RefBase.h"
#include "utils/StrongPointer.h"

namespace android {

class ProcessState : public virtual RefBase {
  public:
    static sp<ProcessState> self();

    /// How many threads `startThreadPool` may start. To be set before it.
    status_t setThreadPoolMaxThreadCount(size_t maxThreads);
    /// Starts the threads. Further calls do nothing.
    void startThreadPool();

  private:
    friend class sp<ProcessState>;
    ProcessState() = default;

    size_t mMaxThreads = 15;
    bool mStarted = false;
};

}  // namespace android
