#include "control/busy.h"

#include <atomic>

#include "control/properties.h"
#include "platform/include/tavo_f2fs_io_extensions.h"

namespace rux {
namespace {

constexpr uint32_t kBetween = 1U << 31;  // beside the operations' bits

std::atomic<uint32_t> busyFlags{0};

/// Whether somebody wants the scan or the compression under way to stop.
bool isUnwanted() {
    return (isBusy(Operation::Scan) && getStopProp(kStopScan)) ||
           (isBusy(Operation::Compression) && getStopProp(kStopCompression));
}

}  // namespace

bool isAnyBusy() {
    return (busyFlags.load(std::memory_order_acquire) & ~kBetween) != 0;
}

bool isBusy(Operation operation) {
    return (busyFlags.load(std::memory_order_acquire) & static_cast<uint32_t>(operation)) != 0;
}

BusyGuard::BusyGuard(Operation operation) {
    uint32_t found = 0;
    // Acquire and release: what the operation before left in memory is seen by this one.
    while (!busyFlags.compare_exchange_strong(found, static_cast<uint32_t>(operation),
                                              std::memory_order_acq_rel)) {
        if (found != kBetween) return;
        busyFlags.wait(kBetween, std::memory_order_acquire);
        found = 0;
    }
    mAdmitted = true;
    if (giveUpLongFilesWhen != nullptr) giveUpLongFilesWhen(isUnwanted);
}

BusyGuard::~BusyGuard() {
    if (!mAdmitted) return;
    busyFlags.store(0, std::memory_order_release);
}

bool betweenOperations(const std::function<void()>& step) {
    uint32_t none = 0;
    if (!busyFlags.compare_exchange_strong(none, kBetween, std::memory_order_acq_rel)) return false;
    step();
    busyFlags.store(0, std::memory_order_release);
    busyFlags.notify_all();
    return true;
}

}  // namespace rux
