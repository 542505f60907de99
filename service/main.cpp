// The service process: registers the one service object and serves it for as long as it lives.

#include <sys/stat.h>

#include <cstdio>

#include "android/log.h"
#include "binder/IPCThreadState.h"
#include "binder/IServiceManager.h"
#include "binder/ProcessState.h"
#include "service/RuxNativeService.h"

namespace {

constexpr char kTag[] = "rux";
constexpr size_t kMaxPoolThreads = 4;

android::sp<android::RuxNativeService> instance;

}  // namespace

int main(int argc, char**) {
    using android::IServiceManager;
    using android::ProcessState;

    if (argc > 1) {
        fputs("usage: rux\nThe service. It takes no arguments; ruxctl is its client.\n", stderr);
        return 2;
    }
    umask(S_IRWXG | S_IRWXO);  // a database tells the names of everybody's files

    __android_log_print(ANDROID_LOG_DEBUG, kTag, "%s:%d: RUXStarting rux", __func__, __LINE__);
    const android::sp<IServiceManager> manager = android::defaultServiceManager();
    if (instance == nullptr) instance = android::sp<android::RuxNativeService>::make();
    const android::sp<android::RuxNativeService> service = instance;
    const android::status_t registered =
            manager->addService(android::String16("RuxNativeService"), service, false,
                                IServiceManager::DUMP_FLAG_PRIORITY_DEFAULT);
    if (registered != android::OK) {
        __android_log_print(ANDROID_LOG_ERROR, kTag, "%s:%d: Couldn't register rux binder service!",
                            __func__, __LINE__);
        return -1;
    }
    const android::sp<ProcessState> process = ProcessState::self();
    process->setThreadPoolMaxThreadCount(kMaxPoolThreads);
    process->startThreadPool();
    android::IPCThreadState::self()->joinThreadPool(true);
    return 0;
}
