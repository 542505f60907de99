#include "f2fs_io/interrupted.h"

#include <unistd.h>

#include <algorithm>
#include <fstream>
#include <string>
#include <thread>

namespace android::host {
namespace {

using namespace std::chrono_literals;

// For how long a task is thought to be without a processor: as many turns of others as there are
// tasks for each processor, and some more.
constexpr std::chrono::nanoseconds kTurn = 8ms;
constexpr std::chrono::nanoseconds kLeast = 50ms;

std::chrono::nanoseconds timeWithoutProcessor() {
    static const long processors = sysconf(_SC_NPROCESSORS_ONLN);
    std::ifstream loadavg("/proc/loadavg");  // "0.20 0.18 0.12 1/80 11206", see proc_loadavg(5)
    std::string average;
    long runnable = 0;  // this task included
    if (!(loadavg >> average >> average >> average >> runnable)) return kLeast;
    return runnable <= processors ? 0ns : std::max(kLeast, kTurn * runnable / processors);
}

}  // namespace

void waitForInterruptedTasks(std::chrono::nanoseconds elapsed) {
    const auto wait = timeWithoutProcessor();
    const auto left = wait - std::max(elapsed, 0ns);
    if (left > 0ns) std::this_thread::sleep_for(left);
}

}  // namespace android::host
