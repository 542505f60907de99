/// The scan: files into records and digest groups.
#pragma once

#include <string>

namespace rux {

/// Scans the spaces that `scanRules` describes: [{"sid": space id, "regs": [pattern, ...], "dirs":
/// [starting path, ...]}, ...]. The outcome is in the spaces' database files. Optional members
/// leave out some of what lies below the starting paths: see `Reach`.
///
/// A path that has a digest is left alone, whatever has become of its file. With "refresh": true
/// the space is to know of the starting paths what a first scan would find, and no file is read
/// that has not changed:
///   - What has another time or size than the space knows, was retired, has left all groups, or was
///     restored in vain (it has several names still), is taken up as new.
///   - What is gone or no longer selected leaves DB1, DB2 and DB4, unless the scan was stopped.
///   - A new copy of files that are linked already enters their group behind them. So it is linked
///     to them, and one undo covers all. So does a name of such a group that is no link.
///   - What was restored, and has one name, is left alone.
///
/// Refused, with nothing changed, while another long operation runs. The client ends it early by
/// setting "sys.ruxservice.stop_scan" to "true"; what was done until then is saved.
void Rux_scanDuplicateFilesImp(const std::string& scanRules);

}  // namespace rux
