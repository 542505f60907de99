#include "control/busy.h"

#include <atomic>

#include "control/properties.h"

/// Has the allocator keep what is freed for what will be asked for next, or no longer. An
/// extension: where the platform's has none, the address is null.
[[gnu::weak]] void keepFreedMemory(bool keep);

/// Has the I/O library ask whether it may give up the file that it is reading. An extension too.
[[gnu::weak]] void giveUpLongFilesWhen(bool (*unwanted)());

namespace rux {
namespace {

std::atomic<uint32_t> busyFlags{0};

/// Whether somebody wants the scan or the compression under way to stop.
bool isUnwanted() {
    return (isBusy(Operation::Scan) && getStopProp(kStopScan)) ||
           (isBusy(Operation::Compression) && getStopProp(kStopCompression));
}

}  // namespace

bool isAnyBusy() {
    return busyFlags.load(std::memory_order_acquire) != 0;
}

bool isBusy(Operation operation) {
    return (busyFlags.load(std::memory_order_acquire) & static_cast<uint32_t>(operation)) != 0;
}

BusyGuard::BusyGuard(Operation operation) {
    uint32_t none = 0;
    // Acquire and release: what the operation before left in memory is seen by this one.
    mAdmitted = busyFlags.compare_exchange_strong(none, static_cast<uint32_t>(operation),
                                                  std::memory_order_acq_rel);
    if (!mAdmitted) return;
    if (keepFreedMemory != nullptr) keepFreedMemory(true);
    if (giveUpLongFilesWhen != nullptr) giveUpLongFilesWhen(isUnwanted);
}

BusyGuard::~BusyGuard() {
    if (!mAdmitted) return;
    if (keepFreedMemory != nullptr) keepFreedMemory(false);
    busyFlags.store(0, std::memory_order_release);
}

}  // namespace rux
