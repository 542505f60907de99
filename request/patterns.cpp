#include "request/patterns.h"

#include <linux/limits.h>

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
    std::vector<const std::string*> tooLong;
    const bool matched = matches(path, tooLong);
    for (const std::string* pattern : tooLong)
        RUX_LOGE("pattern %s takes too long for %s", pattern->c_str(), path.c_str());
    return matched;
}

bool PatternList::matches(const std::string& path, std::vector<const std::string*>& tooLong) const {
    if (path.size() > PATH_MAX) return false;
    for (const Pattern& pattern : mPatterns) {
        const Expression::Result result = match(pattern, path);
        if (result == Expression::Result::Match) return true;
        if (result == Expression::Result::TooLong) tooLong.push_back(&pattern.text);
    }
    return false;
}

Expression::Result PatternList::match(const Pattern& pattern, const std::string& path) {
    using Result = Expression::Result;
    if (pattern.isAnything) return isOneLine(path) ? Result::Match : Result::NoMatch;
    return pattern.expression ? pattern.expression->match(path) : Result::NoMatch;
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
