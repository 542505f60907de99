#include "request/patterns.h"

#include <gtest/gtest.h>

namespace rux {
namespace {

TEST(PatternListTest, MatchesWholePathsByTheFirstThatFits) {
    const PatternList list({"jpg", "[", R"(.*\.jpg)", R"(/data/(a|b)+/\d{2,3})"});
    EXPECT_FALSE(list.empty());
    EXPECT_TRUE(list.matches("/sdcard/a.jpg"));
    EXPECT_TRUE(list.matches("jpg"));
    EXPECT_TRUE(list.matches("/data/abba/123"));
    for (const char* path : {"/sdcard/a.JPG", "/sdcard/a.jpg.bak", "/data/abba/1", "[", ""}) {
        EXPECT_FALSE(list.matches(path)) << path;
    }
    EXPECT_TRUE(PatternList().empty());
    EXPECT_FALSE(PatternList().matches("x"));
    EXPECT_FALSE(PatternList({"("}).empty());
}

TEST(PatternListTest, AnythingIsWhatThePlainExpressionMatches) {
    const PatternList anything({".*"});
    const PatternList grouped({"(.*)"});  // takes the way of every other expression
    for (const char* path : {"", "/a", "/a\nb", "/a\rb", "/\xff\xfe", "/\xe2\x80\xa8"}) {
        EXPECT_EQ(anything.matches(path), grouped.matches(path)) << path;
    }
}

TEST(PatternListTest, PathsThatNoFileCanHaveMatchNothing) {
    const PatternList anything({".*"});
    EXPECT_TRUE(anything.matches("/" + std::string(4094, 'a')));
    EXPECT_FALSE(anything.matches("/" + std::string(4096, 'a')));
}

}  // namespace
}  // namespace rux
