#include "f2fs_io/leased_file.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <fstream>
#include <string>
#include <thread>

namespace android::host {
namespace {

using namespace std::chrono_literals;

// For how long a task is thought to be without a processor: as many turns of others as there are
// tasks for each processor, and some more.
constexpr std::chrono::nanoseconds kTurn = 8ms;
constexpr std::chrono::nanoseconds kLeastTurns = 50ms;

int setLease(int file) {
    if (fcntl(file, F_SETLEASE, F_RDLCK) == 0) return 0;
    if (errno == EINVAL) return EOPNOTSUPP;  // the file system has none, or the machine
    return errno == EAGAIN ? EBUSY : errno;
}

}  // namespace

std::chrono::nanoseconds timeWithoutProcessor() {
    static const long processors = sysconf(_SC_NPROCESSORS_ONLN);
    std::ifstream loadavg("/proc/loadavg");  // "0.20 0.18 0.12 1/80 11206", see proc_loadavg(5)
    std::string average;
    long runnable = 0;  // this task included
    if (!(loadavg >> average >> average >> average >> runnable)) return kLeastTurns;
    return runnable <= processors ? 0ns : std::max(kLeastTurns, kTurn * runnable / processors);
}

int LeasedFile::openLeased(const Entry& entry, const std::string& name) {
    const int error = openRegular(entry.directory.get(), name.c_str(), O_NOFOLLOW, &file, &status);
    return error == 0 ? takeLease() : error;
}

int LeasedFile::takeLease() {
    // The lease is polled, so its signal must do no harm: SIGIO would end the process, while the
    // default action of SIGURG is nothing.
    if (fcntl(file.get(), F_SETSIG, SIGURG) != 0) return errno;
    if (const int error = setLease(file.get()); error != 0) return error;
    if (fstat(file.get(), &status) != 0) return errno;
    return readAttributes(file.get(), status, &attributes);
}

int LeasedFile::confirmLease() const {
    const auto start = Clock::now();
    if (isInUse()) return EBUSY;
    if (const int error = setLease(file.get()); error != 0) return error;
    return Clock::now() - start < kLeast ? 0 : EBUSY;
}

int LeasedFile::compareWithNow() const {
    struct stat now = {};
    Attributes attributesNow;
    if (fstat(file.get(), &now) != 0) return errno;
    if (const int error = readAttributes(file.get(), now, &attributesNow); error != 0) return error;
    return sameContentStamp(status, now) && attributes == attributesNow ? 0 : ESTALE;
}

int LeasedFile::undisturbed() const {
    if (const int error = compareWithNow(); error != 0) return error;
    return isInUse() ? EBUSY : 0;
}

bool LeasedFile::isInUse() const {
    return fcntl(file.get(), F_GETLEASE) != F_RDLCK;
}

void waitForInterruptedTasks(std::chrono::nanoseconds elapsed) {
    const auto since = LeasedFile::Clock::now() - std::max(elapsed, 0ns);
    for (std::chrono::nanoseconds nap = 1ms;; nap *= 2) {  // as a processor may become free
        const auto left = since + timeWithoutProcessor() - LeasedFile::Clock::now();
        if (left <= 0ns) return;
        std::this_thread::sleep_for(std::min(left, nap));
    }
}

}  // namespace android::host
