/// The long operations, as somebody waits for them.
#pragma once

#include <functional>
#include <optional>
#include <string>

#include "ruxctl/client.h"

namespace ruxctl {

/// A long operation of the service.
struct Operation {
    const char* name;          ///< with its article: "a scan"
    const char* stopProperty;  ///< null for one that cannot be stopped
    Code code;
    std::optional<Code> stopNote = std::nullopt;  ///< tells the service's log who asked
};

inline const Operation kScanOperation = {"a scan", "sys.ruxservice.stop_scan", kScan, kStopScan};
inline const Operation kListOperation = {"a listing", "sys.ruxservice.stop_get_duplicate_files",
                                         kList};
inline const Operation kCompressOperation = {"a compression", "sys.ruxservice.stop_compress",
                                             kCompress, kStopCompress};
inline const Operation kRestoreOperation = {"a restore", nullptr, kRestore};

/// What came of an operation.
struct Outcome {
    std::string text;      ///< the result of a compression
    int64_t number = 0;    ///< that of a restore
    bool stopped = false;  ///< whether this client or another one asked for its end
    double seconds = 0;
};

/// Carries out one operation and waits for it, calling `tick` ten times a second with the seconds
/// that have passed. Ctrl-C stops the operation by its property, and its end is waited for.
///
/// Throws a Failure. A refusal is one (kBusy) that names what the service is busy with, as far as
/// that is known: other clients of this kind say what they do in the property "ruxctl.operation".
Outcome carryOut(
        const Client& client, const Operation& operation, const std::string& request,
        const std::function<void(double seconds)>& tick = [](double) {});

/// From now on an operation that is refused waits for its turn, as all do but the first of a
/// command.
void waitWhenBusy();

/// Whether a long operation is running. Asks with a scan of nothing, which for some microseconds is
/// an operation itself: one that begins just then is refused.
bool isBusy(const Client& client);
/// What another client of this kind has running: "a scan (process 4711, for 12 s)".
std::optional<std::string> runningOperation();

}  // namespace ruxctl
