#include "request/patterns.h"

#include <gtest/gtest.h>

#include <random>

namespace rux {
namespace {

TEST(PatternListTest, CommonShapesMatchWhatTheGeneralMatcherMatches) {
    const std::string pieces[] = {".*", ".*",  "a",   "b",  "ab",       "/",      "\\.",
                                  ".",  "\\/", "\\*", "\n", "(a|b)",    "(?:a|)", "(a|\\.b)",
                                  "?",  "+",   "|",   "-",  "\xc3\xa9", "(b)",    "\\d"};
    const std::string bytes = "aaabbb/.*\n\r-\xc3\xa9";
    std::mt19937 random(20261125);
    int wildcards = 0;
    int matches = 0;
    for (int round = 0; round < 30000; ++round) {
        std::string pattern;
        for (size_t i = random() % 6; i < 6; ++i) pattern += pieces[random() % std::size(pieces)];
        const std::optional<Wildcard> wildcard = Wildcard::of(pattern);
        if (!wildcard) continue;
        ++wildcards;
        const Expression expression(pattern);  // it is one, or this throws
        for (int i = 0; i < 10; ++i) {
            std::string text;
            for (size_t length = random() % 9; length > 0; --length)
                text += bytes[random() % bytes.size()];
            const bool expected = expression.match(text) == Expression::Result::Match;
            ASSERT_EQ(wildcard->matches(text), expected) << "/" << pattern << "/ on " << text;
            matches += expected ? 1 : 0;
        }
    }
    EXPECT_GT(wildcards, 1000);
    EXPECT_GT(matches, 1000);
}

TEST(PatternListTest, PathsThatNoFileCanHaveMatchNothing) {
    const PatternList anything({".*"});
    EXPECT_TRUE(anything.matches("/" + std::string(4094, 'a')));
    EXPECT_FALSE(anything.matches("/" + std::string(4096, 'a')));
}

}  // namespace
}  // namespace rux
