// Patterns against paths: the answer must be that of the standard library.
// Input: the pattern, a NUL, the path. Both are kept so short that the library's matcher, which has
// no bounds of its own, comes to an end.

#include <cstdlib>
#include <optional>
#include <regex>
#include <string>

#include "request/expression.h"

namespace {

template <typename Make>
std::optional<Make> made(const std::string& pattern) {
    try {
        return Make(pattern);
    } catch (const std::regex_error&) {
        return std::nullopt;
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string input(reinterpret_cast<const char*>(data), size);
    const size_t nul = input.find('\0');
    if (nul == std::string::npos || nul > 24 || size - nul > 7) return 0;
    const std::string pattern = input.substr(0, nul);
    const std::string path = input.substr(nul + 1);
    const auto ours = made<rux::Expression>(pattern);
    // Large numbers make the library build very large automata, loops in loops (".***") make it try
    // more ways than can be waited for.
    static const std::regex tooMuch("\\d{3}|\\d.*\\{.*\\d.*\\{|([*+?{].*){3}",
                                    std::regex::optimize);
    if (std::regex_search(pattern, tooMuch)) return 0;
    const auto plain = made<std::regex>(pattern);
    if (plain.has_value() != ours.has_value()) abort();
    if (!plain) return 0;
    const bool expected = std::regex_match(path, *plain);
    const auto result = ours->match(path);
    if (result == rux::Expression::Result::TooLong) return 0;
    if (expected != (result == rux::Expression::Result::Match)) abort();
    return 0;
}
