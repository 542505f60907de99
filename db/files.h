/// Whole files in and out.
#pragma once

#include <optional>
#include <string>

namespace rux {

/// The content of the file `path`; nothing when it cannot be opened. A file that fails while it is
/// read, a directory for one, gives what was read before.
std::optional<std::string> readWholeFile(const std::string& path);

/// Writes all of `text` to an open file. False, with errno set, when it does not take it.
bool writeFully(int file, const std::string& text);

}  // namespace rux
