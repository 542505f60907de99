#include "request/patterns.h"

#include <linux/limits.h>

#include <algorithm>

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
    return std::any_of(mPatterns.begin(), mPatterns.end(), [&path](const Pattern& pattern) {
        switch (pattern.kind) {
            case Pattern::Kind::Anything:
                return isOneLine(path);
            case Pattern::Kind::Expression:
                return std::regex_match(path, pattern.expression);
            case Pattern::Kind::Invalid:
                break;
        }
        return false;
    });
}

PatternList::Pattern PatternList::compile(const std::string& expression) {
    if (expression == ".*") return {Pattern::Kind::Anything, {}};  // the client's own default
    try {
        return {Pattern::Kind::Expression, std::regex(expression)};
    } catch (const std::regex_error& error) {
        RUX_LOGE("invalid pattern %s: %s", expression.c_str(), error.what());
        return {Pattern::Kind::Invalid, {}};
    }
}

}  // namespace rux
