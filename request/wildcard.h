/// The common shapes of patterns, decided without the general matcher.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace rux {

/// A regular expression of literal characters and ".*" alone, and of at most one group of literal
/// alternatives: "/sdcard/.*", ".*\.(jpg|png)".
class Wildcard {
  public:
    /// Nothing when `pattern` has any other shape.
    static std::optional<Wildcard> of(std::string_view pattern);

    /// Whether it matches all of `text`.
    bool matches(std::string_view text) const;

  private:
    using Pieces = std::vector<std::string>;  // literals; between any two of them stands a ".*"

    static bool matches(const Pieces& pieces, std::string_view text);

    std::vector<Pieces> mAlternatives;
};

}  // namespace rux
