#include "request/expression.h"

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

TEST(ExpressionTest, AgreesWithTheStandardLibrary) {
    const std::string pieces[] = {
            "a",    "b",     "/",           ".",        "*",      "+",       "?",       "|",
            "(",    ")",     "(?:",         "(?=",      "(?!",    "[ab]",    "[^a]",    "[]",
            "[^]",  "[a-c]", "]",           "}",        "{",      "{2}",     "{1,2}",   "{0,}",
            "{,2}", "{2,1}", "^",           "$",        "\\b",    "\\B",     "\\d",     "\\w",
            "\\W",  "\\s",   "\\1",         "\\2",      "\\x61",  "\\u0061", "\\cA",    "\\",
            "\\/",  "\\0",   "[[:alpha:]]", "[[:no:]]", "[\\d-]", "[a\\]b]", "[[.a.]]", "[[=a=]]",
            "-",    "\n",    "\xc3",        "[b-a]",    "(a|b)",  "(a*)*",   "*?",      "??",
            "\\z",  "[\\b]", "[[]",         "[a",       "{1",     "(a+)+",   "(|a)",    "((a)|b)*",
    };
    const std::string bytes = "aaabbc/1A\n-]\xc3 ";
    std::mt19937 random(20240607);
    const auto pick = [&random](size_t count) { return random() % count; };
    int valid = 0;
    int matches = 0;
    for (int round = 0; round < 20000; ++round) {
        std::string pattern;
        for (size_t i = pick(8); i < 8; ++i) pattern += pieces[pick(std::size(pieces))];
        const auto plain = made<std::regex>(pattern);
        const auto ours = made<Expression>(pattern);
        ASSERT_EQ(plain.has_value(), ours.has_value()) << pattern;
        if (!plain) continue;
        ++valid;
        for (int i = 0; i < 8; ++i) {
            std::string text;
            for (size_t length = pick(7); length > 0; --length) text += bytes[pick(bytes.size())];
            const bool expected = std::regex_match(text, *plain);
            ASSERT_EQ(ours->match(text), expected ? Result::Match : Result::NoMatch)
                    << "/" << pattern << "/ on \"" << text << "\"";
            matches += expected ? 1 : 0;
        }
    }
    EXPECT_GT(valid, 1000);
    EXPECT_GT(matches, 1000);
}

TEST(ExpressionTest, DoesNotLoseItselfWhereBacktrackingWould) {
    const std::string name(255, 'a');
    const std::string path = "/" + std::string(4094, 'a');
    for (const char* pattern :
         {"(a+)+b", "(.*)*x", "(a|aa)+c", "(a*)*b", "(.*.*.*.*.*)*x", "(/?a?){200}b"}) {
        EXPECT_EQ(Expression(pattern).match(name), Result::NoMatch) << pattern;
        EXPECT_EQ(Expression(pattern).match(path), Result::NoMatch) << pattern;
    }
    EXPECT_EQ(Expression("(a|aa)+$").match(name), Result::Match);
    EXPECT_EQ(Expression("(.*a){100}").match(path), Result::Match);
    EXPECT_EQ(Expression("(?:(?=a*b)a)*|.*").match(path), Result::Match);
    EXPECT_EQ(Expression("(?!.*(a+)+b).*").match(path), Result::Match);
    // With a back-reference every way has to be tried; the match gives up in good time.
    EXPECT_EQ(Expression("(a*)*(a*)*\\1b").match(name), Result::TooLong);
    EXPECT_EQ(Expression("(.*)/\\1").match("abc/abc"), Result::Match);
}

TEST(ExpressionTest, RefusesWhatWouldBeTooLargeInsteadOfBreaking) {
    const auto repeated = [](const std::string& text, size_t times) {
        std::string whole;
        for (size_t i = 0; i < times; ++i) whole += text;
        return whole;
    };
    EXPECT_THROW(Expression(repeated("(", 1000000)), std::regex_error);
    EXPECT_THROW(Expression(repeated("(", 500000) + repeated(")", 500000)), std::regex_error);
    EXPECT_THROW(Expression(repeated("a", 8000000)), std::regex_error);
    EXPECT_THROW(Expression("((a{1000}){1000}){1000}"), std::regex_error);
    EXPECT_THROW(Expression("a{4294967297}"), std::regex_error);
    EXPECT_THROW(Expression("a{0,999999}"), std::regex_error);
    EXPECT_THROW(Expression("[" + repeated("ab", 1000000) + "]"), std::regex_error);
    EXPECT_THROW(Expression(repeated("[", 1000000)), std::regex_error);
    EXPECT_EQ(Expression(repeated("(", 900) + "a" + repeated(")*", 900)).match("aa"),
              Result::Match);
    EXPECT_EQ(Expression("(b||)*{92}*{92}").match("bb"), Result::Match) << "near the limit";
    EXPECT_EQ(Expression("." + repeated("+", 40) + repeated("?", 40)).match("abc"), Result::Match);
    EXPECT_EQ(Expression(repeated("a", 4095)).match(repeated("a", 4095)), Result::Match);
}

}  // namespace
}  // namespace rux
