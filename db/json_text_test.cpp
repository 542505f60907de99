#include "db/json_text.h"

#include <gtest/gtest.h>

#include "db/space.h"

namespace rux {
namespace {

TEST(JsonTextTest, NestingStopsShortOfTheLibrarysOwnLimit) {
    Json::Value value;
    const auto nested = [](size_t depth, const std::string& inside) {
        return std::string(depth, '[') + inside + std::string(depth, ']');
    };
    EXPECT_TRUE(parseJson(nested(999, "1"), value));
    EXPECT_FALSE(parseJson(nested(1000, "1"), value));
    EXPECT_FALSE(parseJson(nested(100000, ""), value));
    // Brackets in strings and comments do not nest.
    EXPECT_TRUE(parseJson("[\"\\\"" + std::string(5000, '[') + "\\\"[\"]", value));
    const std::string comment = "/*/" + std::string(5000, '[') + "*/";
    EXPECT_TRUE(parseJson("// " + std::string(5000, '{') + "\n[" + comment + "1]", value));
    // But brackets behind a string or a comment do.
    EXPECT_FALSE(parseJson("[\"\"," + nested(999, "1") + "]", value));
    EXPECT_FALSE(parseJson("/**//**/" + nested(1000, "1"), value));
    EXPECT_FALSE(parseJson("//\n" + nested(1000, "1"), value));
    EXPECT_FALSE(parseJson("[/]", value)) << "a slash by itself begins nothing";
}

TEST(SpaceTest, StorablePathsAreValidUtf8) {
    for (const char* good :
         {"/a", "/\xc3\xa9", "/\xe2\x82\xac", "/\xf0\x9f\x98\x80", "/\xef\xbf\xbd"}) {
        EXPECT_TRUE(isStorablePath(good)) << good;
    }
    for (const char* bad :
         {"\x80", "\xc3", "\xc0\xaf", "\xe0\x9f\xbf", "\xed\xa0\x80", "\xf0\x8f\xbf\xbf",
          "\xf4\x90\x80\x80", "\xf8\x88\x80\x80", "\xff", "a\xe2\x82"}) {
        EXPECT_FALSE(isStorablePath(bad)) << bad;
        // Indeed the JSON library does not give such a text back.
        Json::Value back;
        parseJson(Json::FastWriter().write(Json::Value(bad)), back);
        EXPECT_NE(back.asString(), bad);
    }
}

}  // namespace
}  // namespace rux
