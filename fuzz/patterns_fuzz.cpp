// Patterns against paths: the answer must be that of the standard library.
// Input: the pattern, a NUL, the path. Both are kept so short that the library's matcher, which has
// no bounds of its own, comes to an end; where there is no back-reference its other, patient one is
// asked.

#include <cstdlib>
#include <optional>
#include <regex>
#include <string>

#include "request/expression.h"

namespace {

std::optional<rux::Expression> ours(const std::string& pattern) {
    try {
        return rux::Expression(pattern);
    } catch (const std::regex_error&) {
        return std::nullopt;
    }
}

/// Nothing for what is no expression; `tooLarge` when the library only finds it too large.
std::optional<std::regex> plain(const std::string& pattern, std::regex::flag_type more,
                                bool* tooLarge) {
    try {
        return std::regex(pattern, std::regex::ECMAScript | more);
    } catch (const std::regex_error& error) {
        *tooLarge = error.code() == std::regex_constants::error_space;
        return std::nullopt;
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string input(reinterpret_cast<const char*>(data), size);
    const size_t nul = input.find('\0');
    if (nul == std::string::npos || nul > 24 || size - nul > 12) return 0;
    const std::string pattern = input.substr(0, nul);
    const std::string path = input.substr(nul + 1);
    // Large numbers make the library build very large automata.
    static const std::regex large("\\d{3}|\\d.*\\{.*\\d.*\\{");
    static const std::regex backReference("\\\\[1-9]");
    static const std::regex manyWays("[*+{].*[*+{]|[|][^]*[*+{]");
    if (std::regex_search(pattern, large)) return 0;
    const bool refersBack = std::regex_search(pattern, backReference);
    if (refersBack && (path.size() > 5 || std::regex_search(pattern, manyWays))) return 0;

    const auto mine = ours(pattern);
    const auto flags = refersBack ? std::regex::flag_type{} : std::regex_constants::__polynomial;
    bool tooLarge = false;
    const auto theirs = plain(pattern, flags, &tooLarge);
    if (tooLarge) return 0;
    if (theirs.has_value() != mine.has_value()) abort();
    if (!theirs) return 0;
    const bool expected = std::regex_match(path, *theirs);
    const auto result = mine->match(path);
    if (result == rux::Expression::Result::TooLong) return 0;
    if (expected != (result == rux::Expression::Result::Match)) abort();
    return 0;
}
