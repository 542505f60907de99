#include "request/patterns.h"

#include <gtest/gtest.h>

#include <random>
#include <regex>

namespace rux {
namespace {

using Result = Expression::Result;

TEST(PatternsTest, AgreeWithTheStandardLibrary) {
    const std::vector<std::string> texts = {"",    "a",   "b",  "A",   "aa",  "ab", "aab", "bb",
                                            "a\n", "\n",  "\r", "]",   "a]",  "1",  "-",   "\xc3",
                                            " ",   "a b", "/",  "a/b", "a1b", "\\", "a.b", "\b"};
    size_t matches = 0;
    for (const char* pattern :
         {"a",        ".",       ".*",    "a*b",  "a+?b",   "a??b",     "a{2}b?",  "a{1,2}",
          "a{0,}",    "^a$",     "a$\n",  "a|ab", "|b",     "(a|b)\\1", "(a*)*",   "(?:a|b)+",
          "(?=a.).*", "(?!a).+", "[ab]+", "[^a]", "[^]",    "[]",       "[a\\]]+", "[[:alpha:]*+]+",
          "[\\d-]",   "[\\b]",   "]",     "}",    "\\x61",  "\\u0061.", "\\d",     "\\D",
          "\\w+",     "\\W",     "\\s",   "\\S+", "a\\b.*", ".*\\B.",   "\\/",     "a\\.b",
          "\\\\",     "\\n",     "a\\n"}) {
        const std::regex truth(pattern);
        for (const std::string& text : texts) {
            const bool isMatch = std::regex_match(text, truth);
            matches += isMatch ? 1 : 0;
            EXPECT_EQ(Expression(pattern).match(text), isMatch ? Result::Match : Result::NoMatch)
                    << "/" << pattern << "/ on \"" << text << "\"";
        }
    }
    EXPECT_GT(matches, 100);
    EXPECT_EQ(Expression("\\cA").match("\x01"), Result::Match);
    // What others have that take expressions for more than the language is, and what nobody has.
    for (const char* pattern :
         {"(?i)a",   "(?<n>a)", "(?<=a)b", "(*F)",  "a++",      "a*+", "a**",    "\\Aa",
          "\\Qa\\E", "\\h",     "\\xf",    "\\1",   "a{,2}",    "a{",  "a{2,1}", "a\\",
          "(",       ")",       "[a",      "[b-a]", "[[:no:]]", "*a"})
        EXPECT_THROW(Expression{pattern}, std::invalid_argument) << pattern;
}

TEST(PatternsTest, AgreeInTheCommonShape) {
    const std::vector<std::string> pieces = {".*",  ".*",  "a",   "b",     "ab",     "/",
                                             "\\.", ".",   "\n",  "(a|b)", "(?:a|)", "(a|\\.b)",
                                             "a?",  "b+",  "\\/", "-",     "\\*",    "\xc3\xa9",
                                             "(b)", "\\d", "|"};
    const std::string bytes = "aaabb/.*c1A\n\r-]\xc3\xa9 ";
    std::mt19937 random(20240607);
    size_t matches = 0;
    for (int round = 0; round < 20000; ++round) {
        std::string pattern;
        for (size_t i = random() % 8; i < 8; ++i) pattern += pieces[random() % pieces.size()];
        const auto wildcard = Wildcard::of(pattern);
        for (int i = 0; wildcard && i < 8; ++i) {
            std::string text;
            for (size_t n = random() % 7; n > 0; --n) text += bytes[random() % bytes.size()];
            const bool isMatch = Expression(pattern).match(text) == Result::Match;
            matches += isMatch ? 1 : 0;
            EXPECT_EQ(wildcard->matches(text), isMatch) << "/" << pattern << "/ on " << text;
        }
    }
    EXPECT_GT(matches, 1000);
}

TEST(PatternsTest, DoNotLoseThemselvesWhereBacktrackingWould) {
    const std::string name(255, 'a');
    const std::string path = "/" + std::string(4094, 'a');
    for (const char* pattern :
         {"(a+)+b", "(.*)*x", "(a|aa)+c", "(a*)*b", "(.*.*.*.*.*)*x", "(/?a?){200}b", "(.*)*[xy]",
          "(/|a|aa)+[bc]", "(/?a*)*[bc]", "(.*.*.*.*.*)*[xy]", "(/?a?){200}[bc]"}) {
        EXPECT_EQ(Expression(pattern).match(name), Result::NoMatch) << pattern;
        EXPECT_EQ(Expression(pattern).match(path), Result::NoMatch) << pattern;
    }
    EXPECT_EQ(Expression("(/?a+)+[bc]").match(name), Result::NoMatch);
    EXPECT_EQ(Expression("(.*a){100}").match(path), Result::Match);
    EXPECT_EQ(Expression("(?:(?=a*b)a)*|.*").match(path), Result::Match);
    std::string names = "x";  // of directories that are left out
    std::string deep;
    for (int i = 0; i < 150; ++i) {
        names += "|[^]*/name" + std::to_string(i) + "(?:/[^]*)?";
        deep += "/abcd";
    }
    EXPECT_EQ(Expression("(?!(?:" + names + ")$).*").match(deep), Result::Match);
    EXPECT_EQ(Expression("|/.*(a|aa)+[bc]").match(path), Result::NoMatch);
    // A match gives up in good time: with a back-reference or a look-ahead, and on a long text.
    EXPECT_EQ(Expression("(a*)*(a*)*\\1[bc]").match(name), Result::TooLong);
    EXPECT_EQ(Expression("((?=a)a|aa)+[bc]").match(name), Result::TooLong);
    EXPECT_EQ(Expression("(/?a+)+[bc]").match(path), Result::TooLong);
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
    EXPECT_EQ(Expression(repeated("(", 900) + "a" + repeated(")", 900)).match("a"), Result::Match);
    EXPECT_EQ(Expression(repeated("a", 4095)).match(repeated("a", 4095)), Result::Match);
}

}  // namespace
}  // namespace rux
