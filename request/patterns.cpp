#include "request/patterns.h"

#include <linux/limits.h>

#include <algorithm>
#include <regex>

#include "control/log.h"

namespace rux {
namespace {

/// What ".*" matches: everything without a line terminator.
bool isOneLine(const std::string& path) {
    return path.find_first_of("\r\n") == std::string::npos;
}

}  // namespace

PatternList::PatternList(const std::vector<std::string>& expressions) {
    mPatterns.reserve(expressions.size());
    for (const std::string& expression : expressions) mPatterns.push_back(compile(expression));
}

bool PatternList::matches(const std::string& path) const {
    if (path.size() > PATH_MAX) return false;
    return std::any_of(mPatterns.begin(), mPatterns.end(),
                       [&path](const Pattern& pattern) { return matches(pattern, path); });
}

bool PatternList::matches(const Pattern& pattern, const std::string& path) {
    if (pattern.isAnything) return isOneLine(path);
    if (!pattern.expression) return false;
    const Expression::Result result = pattern.expression->match(path);
    if (result == Expression::Result::TooLong) {
        RUX_LOGE("pattern %s takes too long for %s", pattern.text.c_str(), path.c_str());
    }
    return result == Expression::Result::Match;
}

PatternList::Pattern PatternList::compile(const std::string& text) {
    if (text == ".*") return {text, true, {}};
    try {
        return {text, false, Expression(text)};
    } catch (const std::regex_error& error) {
        RUX_LOGE("invalid pattern %s: %s", text.c_str(), error.what());
        return {text, false, {}};
    }
}

}  // namespace rux
