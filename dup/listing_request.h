/// The duplicate listing.
#pragma once

#include <string>

namespace rux {

/// Reports for each space of `request` ([{"sid": space id, "regs": [pattern, ...], "dirs": [...]},
/// ...]) what linking its duplicates would give back: a page of {space id: {"fileCount": files,
/// "gCount": groups, "size": bytes}, ..., "isEnd": 0 or 1}.
///
/// While "isEnd" is 0 the next calls return the next pages, whatever they ask. "{}" while another
/// long operation runs, an empty text for a request that is not JSON. The client ends it early by
/// setting "sys.ruxservice.stop_get_duplicate_files" to "true".
std::string Rux_getDuplicateFilesImp(const std::string& request);

}  // namespace rux
