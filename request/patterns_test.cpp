#include "request/patterns.h"

#include <gtest/gtest.h>

#include <optional>
#include <random>
#include <regex>

namespace rux {
namespace {

using Result = Expression::Result;

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
        std::optional<std::regex> plain;
        try {
            plain = std::regex(pattern);
        } catch (const std::regex_error&) {
            EXPECT_THROW(Expression{pattern}, std::invalid_argument) << pattern;
            continue;
        }
        const Expression ours(pattern);
        const auto wildcard = Wildcard::of(pattern);
        ++tally.patterns;
        tally.wildcards += wildcard ? 1 : 0;
        for (int i = 0; i < 8; ++i) {
            std::string text;
            for (size_t n = random() % 7; n > 0; --n) text += bytes[random() % bytes.size()];
            const bool expected = std::regex_match(text, *plain);
            tally.matches += expected ? 1 : 0;
            EXPECT_EQ(ours.match(text), expected ? Result::Match : Result::NoMatch)
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
            compare({"a",      "b*",      "/",     ".",      ".*",          "a+",       "b?",
                     "|",      "(",       ")",     ")*",     ")+?",         "(?:",      "(?=a|b)",
                     "(?!.b)", "[ab]",    "[^a]",  "[^]",    "]",           "[a-c]+",   "}",
                     "a{2}",   ".{1,2}",  "^",     "a{0,}",  "$",           "b{2,1}",   "{",
                     "\\b",    "\\B",     "\\d",   "\\w*",   "\\W",         "\\s",      "a{,2}",
                     "\\x61",  "\\u0061", "\\/",   "[\\d-]", "[[:alpha:]]", "[[:no:]]", "[a\\]b]",
                     "\n",     "\xc3",    "[b-a]", "(a|b)",  "(a*)*",       "a*?",      "b??",
                     "[[]",    "[\\b]",   "[a",    "(a+)+",  "(|a)",        "((a)|b)*"},
                    20000);
    EXPECT_GT(all.patterns, 1000);
    EXPECT_GT(all.matches, 1000);
    const Tally common = compare({".*", ".*",  "a",   "b",        "ab",    "/",      "\\.",
                                  ".",  "\\/", "\\*", "\n",       "(a|b)", "(?:a|)", "(a|\\.b)",
                                  "a?", "b+",  "|",   "\xc3\xa9", "(b)",   "\\d"},
                                 5000);
    EXPECT_GT(common.wildcards, 1000);
    EXPECT_GT(common.matches, 1000);
    EXPECT_EQ(Expression(R"((a|b)\1)").match("bb"), Result::Match);
    EXPECT_EQ(Expression(R"((a|b)\1)").match("ab"), Result::NoMatch);
    // What others have that take expressions for more than the language is.
    for (const char* pattern : {"(?i)a", "(?<n>a)", "(?<=a)b", "(*F)", "a++", "a*+", "a**", "\\Aa",
                                "\\Qa\\E", "\\h", "\\xf", "\\1", "a{,2}", "a\\"})
        EXPECT_THROW(Expression{pattern}, std::invalid_argument) << pattern;
}

TEST(PatternsTest, DoNotLoseThemselvesWhereBacktrackingWould) {
    const std::string name(255, 'a');
    const std::string path = "/" + std::string(4094, 'a');
    for (const char* pattern : {"(/?a+)+[bc]", "(.*)*[xy]", "(/|a|aa)+[bc]", "(/?a*)*[bc]",
                                "(.*.*.*.*.*)*[xy]", "(/?a?){200}[bc]"}) {
        EXPECT_EQ(Expression(pattern).match(name), Result::NoMatch) << pattern;
        EXPECT_NE(Expression(pattern).match(path), Result::Match) << pattern;
    }
    EXPECT_EQ(Expression("(.*a){100}").match(path), Result::Match);
    EXPECT_EQ(Expression("(?:(?=a*b)a)*|.*").match(path), Result::Match);
    std::string names = "x";  // of directories that are left out
    std::string deep;
    for (int i = 0; i < 200; ++i) {
        names += "|[^]*/name" + std::to_string(i) + "(?:/[^]*)?";
        deep += "/abc";
    }
    EXPECT_EQ(Expression("(?!(?:" + names + ")$).*").match(deep), Result::Match);
    // With a back-reference every way has to be tried; the match gives up in good time.
    EXPECT_EQ(Expression("(a*)*(a*)*\\1[bc]").match(name), Result::TooLong);
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
        EXPECT_THROW(Expression{pattern}, std::invalid_argument) << pattern.substr(0, 30);
    EXPECT_EQ(Expression(repeated("(", 200) + "a" + repeated(")*", 200)).match("aa"),
              Result::Match);
    EXPECT_EQ(Expression(repeated("a", 4095)).match(repeated("a", 4095)), Result::Match);
}

}  // namespace
}  // namespace rux
