/// Pattern lists: which paths an operation is about.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "request/expression.h"
#include "request/wildcard.h"

namespace rux {

/// Regular expressions of the ECMAScript grammar, case-sensitive, each matched against a whole
/// path.
///
/// Compiled once, when the list is made. An invalid expression is named in the log and matches
/// nothing; the others go on. So does one that takes too long for a path: a match is limited to a
/// fraction of a second.
class PatternList {
  public:
    PatternList() = default;
    explicit PatternList(const std::vector<std::string>& expressions);

    /// Whether there were no expressions at all, valid or not.
    bool empty() const { return mPatterns.empty(); }

    /// Whether one of the expressions matches all of `path`; tried in their order. A path longer
    /// than the system's PATH_MAX matches nothing.
    /// One that takes too long for the path is named in the log.
    bool matches(const std::string& path) const;

    /// The same without a word: expressions that take too long are appended to `tooLong`.
    bool matches(const std::string& path, std::vector<const std::string*>& tooLong) const;

  private:
    struct Pattern {
        std::string text;
        std::optional<Wildcard> wildcard;      // when it has such a shape
        std::optional<Expression> expression;  // otherwise, unless it is invalid
    };
    static Pattern compile(const std::string& text);
    static Expression::Result match(const Pattern& pattern, const std::string& path);

    std::vector<Pattern> mPatterns;
};

}  // namespace rux
