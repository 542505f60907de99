/// Which long operation is running. At most one is, and everything that belongs to an operation's
/// data (the images, a listing's pending pages) is touched only while its flag is held.
#pragma once

#include <cstdint>
#include <functional>

namespace rux {

/// The long operations, as bits of the one word that holds their busy flags.
enum class Operation : uint32_t { Listing = 1, Scan = 2, Compression = 4, Restore = 8 };

/// Whether any long operation runs.
bool isAnyBusy();

/// Whether `operation` runs.
bool isBusy(Operation operation);

/// Asks for admission, and holds the operation's busy flag from then on to the end of the scope.
///
/// The test of all flags and the setting of one are a single step: of any number of requests that
/// arrive at the same moment one is admitted.
class BusyGuard {
  public:
    explicit BusyGuard(Operation operation);
    ~BusyGuard();
    BusyGuard(const BusyGuard&) = delete;
    BusyGuard& operator=(const BusyGuard&) = delete;

    bool admitted() const { return mAdmitted; }

  private:
    bool mAdmitted = false;
};

/// Runs `step`, which must be brief, if no operation runs: one that asks for admission meanwhile
/// waits. False when one does.
bool betweenOperations(const std::function<void()>& step);

}  // namespace rux
