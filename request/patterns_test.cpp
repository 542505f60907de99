#include "request/patterns.h"

#include <gtest/gtest.h>

#include <optional>
#include <random>
#include <regex>

namespace rux {
namespace {

using Result = Expression::Result;

/// What `Make` makes of `pattern`; nothing when it is no expression.
template <typename Make>
std::optional<Make> made(const std::string& pattern) {
    try {
        return Make(pattern);
    } catch (const std::regex_error&) {
        return std::nullopt;
    }
}

/// Random patterns and texts of such pieces, against the standard library. How many patterns were
/// right, how many of the common shape, and how many texts matched.
struct Tally {
    int patterns = 0;
    int wildcards = 0;
    int matches = 0;
};
Tally compare(const std::vector<std::string>& pieces, int rounds) {
    const std::string bytes = "aaabb/.*c1A\n\r-]\xc3\xa9 ";
    std::mt19937 random(20240607);
    Tally tally;
    for (int round = 0; round < rounds; ++round) {
        std::string pattern;
        for (size_t i = random() % 8; i < 8; ++i) pattern += pieces[random() % pieces.size()];
        const auto plain = made<std::regex>(pattern);
        const auto ours = made<Expression>(pattern);
        EXPECT_EQ(plain.has_value(), ours.has_value()) << pattern;
        const auto wildcard = Wildcard::of(pattern);
        if (!plain || !ours) continue;
        ++tally.patterns;
        tally.wildcards += wildcard ? 1 : 0;
        for (int i = 0; i < 8; ++i) {
            std::string text;
            for (size_t n = random() % 7; n > 0; --n) text += bytes[random() % bytes.size()];
            const bool expected = std::regex_match(text, *plain);
            tally.matches += expected ? 1 : 0;
            EXPECT_EQ(ours->match(text), expected ? Result::Match : Result::NoMatch)
                    << "/" << pattern << "/ on \"" << text << "\"";
            if (wildcard) {
                EXPECT_EQ(wildcard->matches(text), expected)
                        << "/" << pattern << "/ on \"" << text << "\"";
            }
        }
        if (testing::Test::HasFailure()) break;
    }
    return tally;
}

TEST(PatternsTest, AgreeWithTheStandardLibrary) {
    const Tally all =
            compare({"a",       "b",           "/",        ".",       "*",       "+",       "?",
                     "|",       "(",           ")",        "(?:",     "(?=",     "(?!",     "[ab]",
                     "[^a]",    "[]",          "[^]",      "]",       "[a-c]",   "}",       "{",
                     "{2}",     "{1,2}",       "{0,}",     "{,2}",    "^",       "{2,1}",   "$",
                     "\\b",     "\\B",         "\\d",      "\\w",     "\\W",     "\\s",     "\\1",
                     "\\2",     "\\x61",       "\\u0061",  "\\cA",    "\\",      "\\/",     "\\0",
                     "[\\d-]",  "[[:alpha:]]", "[[:no:]]", "[a\\]b]", "[[.a.]]", "[[=a=]]", "-",
                     "\n",      "\xc3",        "[b-a]",    "(a|b)",   "(a*)*",   "*?",      "??",
                     "\\z",     "[[]",         "[\\b]",    "[a",      "{1",      "(a+)+",   "(|a)",
                     "((a)|b)*"},
                    20000);
    EXPECT_GT(all.patterns, 1000);
    EXPECT_GT(all.matches, 1000);
    const Tally common = compare({".*", ".*",  "a",   "b",  "ab",       "/",      "\\.",
                                  ".",  "\\/", "\\*", "\n", "(a|b)",    "(?:a|)", "(a|\\.b)",
                                  "?",  "+",   "|",   "-",  "\xc3\xa9", "(b)",    "\\d"},
                                 5000);
    EXPECT_GT(common.wildcards, 1000);
    EXPECT_GT(common.matches, 1000);
}

TEST(PatternsTest, DoNotLoseThemselvesWhereBacktrackingWould) {
    const std::string name(255, 'a');
    const std::string path = "/" + std::string(4094, 'a');
    for (const char* pattern :
         {"(a+)+b", "(.*)*x", "(a|aa)+c", "(a*)*b", "(.*.*.*.*.*)*x", "(/?a?){200}b"}) {
        EXPECT_EQ(Expression(pattern).match(name), Result::NoMatch) << pattern;
        EXPECT_EQ(Expression(pattern).match(path), Result::NoMatch) << pattern;
    }
    EXPECT_EQ(Expression("(.*a){100}").match(path), Result::Match);
    EXPECT_EQ(Expression("(?:(?=a*b)a)*|.*").match(path), Result::Match);
    // With a back-reference every way has to be tried; the match gives up in good time.
    EXPECT_EQ(Expression("(a*)*(a*)*\\1b").match(name), Result::TooLong);
    const PatternList anything({".*"});  // but for a path that no file can have
    EXPECT_TRUE(anything.matches(path));
    EXPECT_FALSE(anything.matches("/" + std::string(4096, 'a')));
}

TEST(PatternsTest, RefuseWhatWouldBeTooLargeInsteadOfBreaking) {
    const auto repeated = [](const std::string& text, size_t times) {
        std::string whole;
        for (size_t i = 0; i < times; ++i) whole += text;
        return whole;
    };
    for (const std::string& pattern :
         {repeated("(", 1000000), repeated("(", 500000) + repeated(")", 500000),
          repeated("a", 8000000), std::string("((a{1000}){1000}){1000}"),
          std::string("a{4294967297}"), std::string("a{0,999999}"),
          "[" + repeated("ab", 1000000) + "]", repeated("[", 1000000)})
        EXPECT_THROW(Expression{pattern}, std::regex_error) << pattern.substr(0, 30);
    EXPECT_EQ(Expression(repeated("(", 900) + "a" + repeated(")*", 900)).match("aa"),
              Result::Match);
    EXPECT_EQ(Expression("(b||)*{92}*{92}").match("bb"), Result::Match) << "near the limit";
    EXPECT_EQ(Expression("." + repeated("+", 40) + repeated("?", 40)).match("abc"), Result::Match);
    EXPECT_EQ(Expression(repeated("a", 4095)).match(repeated("a", 4095)), Result::Match);
}

}  // namespace
}  // namespace rux
