#include "request/wildcard.h"

#include <cstddef>

namespace rux {
namespace {

constexpr std::string_view kSpecial = R"(^$\.*+?()[]{}|)";
constexpr size_t kMaxAlternatives = 64;

/// Takes one literal character from the front of `pattern`. Nothing when something else stands
/// there.
std::optional<char> takeLiteral(std::string_view& pattern) {
    if (pattern.empty()) return std::nullopt;
    size_t length = 1;
    if (pattern[0] == '\\' && pattern.size() > 1 &&
        (pattern[1] == '/' || kSpecial.find(pattern[1]) != std::string_view::npos)) {
        length = 2;
    } else if (kSpecial.find(pattern[0]) != std::string_view::npos || pattern[0] == '\0' ||
               pattern[0] == '\n' || pattern[0] == '\r') {
        return std::nullopt;
    }
    const char literal = pattern[length - 1];
    pattern.remove_prefix(length);
    return literal;
}

bool takeText(std::string_view& pattern, std::string_view text) {
    if (!pattern.starts_with(text)) return false;
    pattern.remove_prefix(text.size());
    return true;
}

/// Takes what stands between the parentheses, and the closing one.
std::optional<std::vector<std::string>> takeAlternatives(std::string_view& pattern) {
    std::vector<std::string> alternatives(1);
    while (!takeText(pattern, ")")) {
        if (takeText(pattern, "|")) {
            alternatives.emplace_back();
        } else if (const std::optional<char> literal = takeLiteral(pattern)) {
            alternatives.back() += *literal;
        } else {
            return std::nullopt;
        }
    }
    if (alternatives.size() > kMaxAlternatives) return std::nullopt;
    return alternatives;
}

}  // namespace

std::optional<Wildcard> Wildcard::of(std::string_view pattern) {
    std::vector<Pieces> alternatives = {{""}};
    bool hasGroup = false;
    while (!pattern.empty()) {
        if (takeText(pattern, ".*")) {
            for (Pieces& pieces : alternatives) pieces.emplace_back();
        } else if (const std::optional<char> literal = takeLiteral(pattern)) {
            for (Pieces& pieces : alternatives) pieces.back() += *literal;
        } else if (!hasGroup && (takeText(pattern, "(?:") || takeText(pattern, "("))) {
            hasGroup = true;
            const auto texts = takeAlternatives(pattern);
            if (!texts) return std::nullopt;
            const Pieces before = alternatives.front();
            alternatives.clear();
            for (const std::string& text : *texts) {
                alternatives.push_back(before);
                alternatives.back().back() += text;
            }
        } else {
            return std::nullopt;
        }
    }
    Wildcard wildcard;
    wildcard.mAlternatives = std::move(alternatives);
    return wildcard;
}

bool Wildcard::matches(std::string_view text) const {
    for (const Pieces& pieces : mAlternatives) {
        // The dot matches no line terminator, and no literal is one.
        if (matches(pieces, text)) return text.find_first_of("\r\n") == std::string_view::npos;
    }
    return false;
}

/// Each piece at the first place where it fits: no other choice leaves more for those that follow.
bool Wildcard::matches(const Pieces& pieces, std::string_view text) {
    const std::string& first = pieces.front();
    const std::string& last = pieces.back();
    if (pieces.size() == 1) return text == first;
    if (text.size() < first.size() + last.size()) return false;
    if (!text.starts_with(first) || !text.ends_with(last)) return false;
    text = text.substr(first.size(), text.size() - first.size() - last.size());
    for (size_t i = 1; i + 1 < pieces.size(); ++i) {
        const size_t found = text.find(pieces[i]);
        if (found == std::string_view::npos) return false;
        text.remove_prefix(found + pieces[i].size());
    }
    return true;
}

}  // namespace rux
