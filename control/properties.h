/// The system properties through which a client steers the long operations.
#pragma once

#include <atomic>
#include <string>

namespace rux {

/// Set to "true" by a client to end a running scan, listing or compression early; set to "false" by
/// the service when it admits one.
inline const std::string kStopScan = "sys.ruxservice.stop_scan";
inline const std::string kStopListing = "sys.ruxservice.stop_get_duplicate_files";
inline const std::string kStopCompression = "sys.ruxservice.stop_compress";

/// The number of files that the running or last compression has linked, in decimal: "0" at its
/// start, then every multiple of 100.
inline const std::string kCompressionProgress = "sys.ruxservice.compress.prog";

/// "true" switches on the I/O library's own logging.
inline const std::string kToolLogSwitch = "sys.ruxservice.enablelog.ctrl";

/// Whether the I/O library is to log; the last argument of every call into it.
extern std::atomic<bool> toolLogEnabled;

/// Polls one of the client's stop properties.
///
/// True only when `name` reads exactly "true": an unset, unreadable or otherwise spelled property
/// never stops an operation. Costs one read of shared memory.
bool getStopProp(const std::string& name);

/// Sets `toolLogEnabled` when its property reads exactly "true". Nothing clears it again.
void isEnableToolLog();

}  // namespace rux
