/// Spaces and their directories.
#pragma once

#include <string>

namespace rux {

/// The database directory of the space `spaceId`, "/data/local/zel/" followed by it.
///
/// Empty for an id that would lead out of there (with "/" or a NUL in it, "." or ".."): a directory
/// that neither exists nor can be made.
std::string spaceDirectory(const std::string& spaceId);

/// The file of the exception rules: one for the whole device, an array of patterns of files that
/// are never fingerprinted.
std::string exceptRulesPath();

/// Whether a database file can hold `path` and give back the same: whether it is valid UTF-8.
bool isStorablePath(const std::string& path);

}  // namespace rux
