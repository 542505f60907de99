/// The restore: hard links back into files with data of their own.
#pragma once

#include <cstdint>
#include <string>

namespace rux {

/// Restores compressed groups as `request` selects them: [{"sid": space id, "regs": [pattern, ...],
/// "dirs": [text, ...]}, ...]. A group is restored whole when one of its paths matches a pattern
/// and one of them contains the text; without "dirs" the pattern alone decides.
///
/// Returns the bytes that the restored groups take up again; 0 for a request that is not JSON and
/// while another long operation runs. It cannot be stopped.
int64_t Rux_restoreDuplicateFilesImp(const std::string& request);

}  // namespace rux
