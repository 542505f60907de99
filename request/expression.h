/// One regular expression, matched in bounded time.
#pragma once

#include <memory>
#include <string>

struct pcre2_real_code_8;

namespace rux {

/// An ECMAScript expression, matched against whole texts byte by byte.
///
/// PCRE2 does it on the heap. Its options make its language ECMAScript's; what pcre2syntax(3) has
/// beyond that is refused. When backtracking takes too many steps, its other matcher decides: that
/// one follows all ways at once, but can do neither back-references nor, in good time, look-aheads.
class Expression {
  public:
    /// Throws `std::invalid_argument`, with the reason, for what is no expression.
    explicit Expression(const std::string& pattern);

    enum class Result { Match, NoMatch, TooLong };
    /// Matches all of `text`. `TooLong`: undecided within the steps.
    Result match(const std::string& text) const;

  private:
    std::shared_ptr<const pcre2_real_code_8> mCode;
};

}  // namespace rux
