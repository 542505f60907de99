/// The scan: files into records and digest groups.
#pragma once

#include <string>

namespace rux {

/// Scans the spaces that `scanRules` describes: [{"sid": space id, "regs": [pattern, ...], "dirs":
/// [starting path, ...]}, ...]. Optional members leave out some of what lies below the starting
/// paths: see `Reach`. The outcome is in the spaces' database files.
///
/// Refused, with nothing changed, while another long operation runs. The client ends it early by
/// setting "sys.ruxservice.stop_scan" to "true"; what was done until then is saved.
void Rux_scanDuplicateFilesImp(const std::string& scanRules);

}  // namespace rux
