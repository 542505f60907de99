#include "f2fs_io/settle.h"

#include <fcntl.h>
#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <ctime>

#include "utils/unique_fd.h"

namespace android::host {
namespace {

constexpr timespec kWait = {0, 20'000};  // nanoseconds
constexpr int64_t kMaxNanoseconds = 10'000'000;

int64_t nowNanoseconds() {
    timespec now = {};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return now.tv_sec * int64_t{1'000'000'000} + now.tv_nsec;
}

/// How many tasks run or would like to, this one included (proc_loadavg(5)); 0 when that is not
/// known.
long runnableTasks() {
    static const UniqueFd loadavg(open("/proc/loadavg", O_RDONLY | O_CLOEXEC));
    char text[128];
    const ssize_t got = pread(loadavg.get(), text, sizeof(text) - 1, 0);
    if (got <= 0) return 0;
    text[got] = '\0';
    const char* field = text;  // the fourth: "0.20 0.18 0.12 1/80 11206"
    for (int i = 0; i < 3 && field != nullptr; ++i) {
        field = strchr(field, ' ');
        if (field != nullptr) ++field;
    }
    return field != nullptr ? strtol(field, nullptr, 10) : 0;
}

}  // namespace

void letInterruptedTasksRun() {
    static const long processors = sysconf(_SC_NPROCESSORS_ONLN);
    if (runnableTasks() <= processors) return;
    const int64_t end = nowNanoseconds() + kMaxNanoseconds;
    do {
        nanosleep(&kWait, nullptr);
    } while (runnableTasks() > processors && nowNanoseconds() < end);
}

}  // namespace android::host
