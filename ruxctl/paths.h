/// Paths as the user gives them, and patterns of paths.
#pragma once

#include <functional>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "request/patterns.h"

namespace ruxctl {

/// `path` from the root, without ".", doubled or trailing slashes: the service takes paths letter
/// by letter, and one file is to have one name. Symbolic links stay as they are, but for a path
/// with ".." in it, which is resolved when it exists.
std::string absolutePath(const std::string& path);

using Places = std::set<std::string, std::less<>>;
/// Whether a path is one of the places, or lies below one.
bool isBelow(std::string_view path, const Places& places);

/// The places in portions that a request can hold.
std::vector<std::vector<std::string>> portionsOf(const std::vector<std::string>& places);

/// Regular expressions (ECMAScript) of whole paths, matched as the service does it.
class PathPatterns {
  public:
    /// Throws a Failure for the first that is no regular expression; where nobody can be told, such
    /// a one matches nothing, as with the service.
    explicit PathPatterns(const std::vector<std::string>& patterns, bool tells = true);

    bool match(const std::string& path) const;
    bool empty() const { return mPatterns.empty(); }

  private:
    rux::PatternList mPatterns;
};

/// The patterns that match all: ".*" is quick to decide, but leaves out names with line breaks.
inline const std::vector<std::string> kAllPaths = {".*", "[\\s\\S]*"};

/// The pattern of the paths that a shell pattern (glob(7), without ranges) describes: of whole
/// paths when it begins with "/", "./" or "../", else of the last part; and of all that is below.
std::string patternOfGlob(std::string glob);
/// The pattern of just that text.
std::string escaped(const std::string& text);

}  // namespace ruxctl
