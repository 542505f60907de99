/// The compression: copies into hard links.
#pragma once

#include <string>

namespace rux {

/// Links the duplicates of the spaces that `request` names ([space id, ...]): of every group the
/// first file that exists is kept, and every later one becomes a hard link to it.
///
/// Returns "GROUPS,BYTES": how many groups were linked, and how many bytes that gave back; "0,0"
/// for a request that is not JSON and while another long operation runs. Progress is in
/// "sys.ruxservice.compress.prog"; the client ends it early by setting
/// "sys.ruxservice.stop_compress" to "true".
std::string Rux_compressDuplicateFilesImp(const std::string& request);

}  // namespace rux
