/// Spaces and their directories.
#pragma once

#include <sys/types.h>

#include <set>
#include <string>
#include <utility>

namespace rux {

/// The database directory of the space `spaceId`, "/data/local/zel/" followed by it.
///
/// Empty for an id that would lead out of there (with "/" or a NUL in it, "." or ".."): a directory
/// that neither exists nor can be made.
std::string spaceDirectory(const std::string& spaceId);

/// The file of the exception rules: one for the whole device, an array of patterns of files that
/// are never fingerprinted.
std::string exceptRulesPath();

/// Files by device and inode, whatever their names.
using FileIds = std::set<std::pair<dev_t, ino_t>>;

/// Adds what is in a directory.
void addFiles(const std::string& directory, FileIds& files);

/// The files of the database. They are written in place, so none may become one with another file.
FileIds databaseFiles();

/// Whether a database file can hold `path` and give back the same: whether it is valid UTF-8.
bool isStorablePath(const std::string& path);

}  // namespace rux
