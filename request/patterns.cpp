#include "request/patterns.h"

#include <linux/limits.h>

#include <stdexcept>
#include <utility>

#include "control/log.h"

namespace rux {
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
    if (pattern.wildcard) {
        return pattern.wildcard->matches(path) ? Result::Match : Result::NoMatch;
    }
    return pattern.expression ? pattern.expression->match(path) : Result::NoMatch;
}

PatternList::Pattern PatternList::compile(const std::string& text) {
    if (std::optional<Wildcard> wildcard = Wildcard::of(text))
        return {text, std::move(wildcard), {}};
    try {
        return {text, {}, Expression(text)};
    } catch (const std::invalid_argument& error) {
        RUX_LOGE("invalid pattern %s: %s", text.c_str(), error.what());
        return {text, {}, {}};
    }
}

}  // namespace rux
