/// Paths as the user gives them.
#pragma once

#include <string>

namespace ruxctl {

/// `path` from the root, without ".", doubled or trailing slashes: the service takes paths letter
/// by letter, and one file is to have one name. Symbolic links stay as they are, but for a path
/// with
/// ".." in it, which is resolved when it exists.
std::string absolutePath(const std::string& path);

}  // namespace ruxctl
