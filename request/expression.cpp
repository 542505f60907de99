#include "request/expression.h"

#define PCRE2_CODE_UNIT_WIDTH 8
#include <pcre2.h>

#include <array>
#include <cstdint>
#include <stdexcept>
#include <vector>

namespace rux {
namespace {

constexpr uint32_t kMaxNesting = 1000;   // parentheses in parentheses
constexpr uint32_t kMaxMemory = 4096;    // KiB, of a match
constexpr uint32_t kMaxSteps = 200'000;  // of the matcher that backtracks
// Of the matcher that follows all ways at once:
constexpr uint32_t kNoLookAhead = 1;  // it would start anew for each
constexpr size_t kWorkspace = 8192;   // integers, for ways; so the time is bounded as well

/// What an expression consists of. Whether its parentheses belong together is looked at when it is
/// compiled.
constexpr char kGrammar[] = R"((?x) (?:
      [^\\\[(*+?{]++
    | (?<escape> \\ (?: [^a-zA-Z] | [bBdDfnrsStvwW] | c[a-zA-Z] | x(?<hex>[\da-fA-F]{2})
                      | u(?&hex){2} ) )
    | \[ \^? (?: \[: [a-z]+ :\] | (?&escape) | [^\\\]] )* \]
    | \( (?: \?[:=!] | (?![?*]) )
    | (?: [*+?] | \{ \d+ (?: , \d* )? \} ) \?? (?![*+?{]) )*+ )";

using Code = std::shared_ptr<const pcre2_code>;

std::string messageOf(int error) {
    std::array<PCRE2_UCHAR, 256> text = {};
    pcre2_get_error_message(error, text.data(), text.size());
    return reinterpret_cast<const char*>(text.data());
}

Code compile(const std::string& pattern) {
    constexpr uint32_t kOptions = PCRE2_ANCHORED | PCRE2_ENDANCHORED | PCRE2_DOLLAR_ENDONLY |
                                  PCRE2_ALLOW_EMPTY_CLASS | PCRE2_ALT_BSUX;
    static pcre2_compile_context* const rules = [] {
        pcre2_compile_context* context = pcre2_compile_context_create(nullptr);
        pcre2_set_parens_nest_limit(context, kMaxNesting);
        pcre2_set_newline(context, PCRE2_NEWLINE_ANYCRLF);  // no dot matches one of them
        return context;
    }();
    int error = 0;
    size_t place = 0;
    const auto* text = reinterpret_cast<PCRE2_SPTR>(pattern.data());
    pcre2_code* code = pcre2_compile(text, pattern.size(), kOptions, &error, &place, rules);
    if (code == nullptr)
        throw std::invalid_argument(messageOf(error) + " at byte " + std::to_string(place));
    return {code, [](const pcre2_code* one) { pcre2_code_free(const_cast<pcre2_code*>(one)); }};
}

pcre2_match_context* limitedTo(uint32_t steps) {
    pcre2_match_context* context = pcre2_match_context_create(nullptr);
    pcre2_set_match_limit(context, steps);
    pcre2_set_heap_limit(context, kMaxMemory);
    return context;
}

Expression::Result match(const Code& code, const std::string& text) {
    static pcre2_match_context* const backtracking = limitedTo(kMaxSteps);
    static pcre2_match_context* const allWays = limitedTo(kNoLookAhead);
    const std::unique_ptr<pcre2_match_data, void (*)(pcre2_match_data*)>
            data(pcre2_match_data_create(1, nullptr), pcre2_match_data_free);
    const auto* subject = reinterpret_cast<PCRE2_SPTR>(text.data());
    int found = pcre2_match(code.get(), subject, text.size(), 0, 0, data.get(), backtracking);
    if (found == PCRE2_ERROR_MATCHLIMIT || found == PCRE2_ERROR_HEAPLIMIT) {
        std::vector<int> workspace(kWorkspace);
        found = pcre2_dfa_match(code.get(), subject, text.size(), 0, 0, data.get(), allWays,
                                workspace.data(), workspace.size());
    }
    if (found < 0 && found != PCRE2_ERROR_NOMATCH) return Expression::Result::TooLong;
    // The second matcher may find an empty text at the beginning, which is not the whole.
    const bool isWhole = found >= 0 && pcre2_get_ovector_pointer(data.get())[1] == text.size();
    return isWhole ? Expression::Result::Match : Expression::Result::NoMatch;
}

}  // namespace

Expression::Expression(const std::string& pattern) : mCode(compile(pattern)) {
    static const Code grammar = compile(kGrammar);
    if (rux::match(grammar, pattern) != Result::Match)
        throw std::invalid_argument("not ECMAScript's syntax");
}

Expression::Result Expression::match(const std::string& text) const {
    return rux::match(mCode, text);
}

}  // namespace rux
