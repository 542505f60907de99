/// Pattern lists: which paths an operation is about.
#pragma once

#include <regex>
#include <string>
#include <vector>

namespace rux {

/// Regular expressions of the ECMAScript grammar, case-sensitive, each matched against a whole
/// path.
///
/// Compiled once, when the list is made. An invalid expression is named in the log and matches
/// nothing; the others go on.
class PatternList {
  public:
    PatternList() = default;
    explicit PatternList(const std::vector<std::string>& expressions);

    /// Whether there were no expressions at all, valid or not.
    bool empty() const { return mPatterns.empty(); }

    /// Whether one of the expressions matches all of `path`; tried in their order. A path longer
    /// than the system's PATH_MAX matches nothing.
    bool matches(const std::string& path) const;

  private:
    struct Pattern {
        enum class Kind { Anything, Expression, Invalid } kind;
        std::regex expression;
    };
    static Pattern compile(const std::string& expression);

    std::vector<Pattern> mPatterns;
};

}  // namespace rux
