#include "db/json_text.h"

#include <gtest/gtest.h>

#include <random>
#include <vector>

#include "db/json_writer.h"
#include "db/space.h"

namespace rux {
namespace {

/// A value of any kind, with others in it.
Json::Value anyValue(std::mt19937& random, int depth) {
    const auto text = [&random] {
        constexpr std::string_view kPieces[] = {"a",    "/",    "\"",   "\\",       "\n", "\x01",
                                                "\x7f", "\xc3", "\xa9", "\xc3\xa9", "😀",  "b b"};
        std::string made;
        for (size_t i = random() % 6; i > 0; --i) made += kPieces[random() % std::size(kPieces)];
        return made + (random() % 20 == 0 ? std::string(1, '\0') : "");
    };
    Json::Value value;
    switch (random() % (depth > 0 ? 9 : 7)) {
        case 0:
            return value;
        case 1:
            return random() % 2 == 0;
        case 2:
            return Json::Int64(random()) * (random() % 2 == 0 ? 1 : -0x1234567);
        case 3:
            return Json::Value(Json::LargestUInt(-1) - random());
        case 4:
            return static_cast<double>(random()) / 1e3;
        case 5:
            return Json::Value(Json::LargestInt(INT64_MIN));
        case 6:
            return text();
        case 7:
            value = Json::Value(Json::arrayValue);
            for (size_t i = random() % 5; i > 0; --i) value.append(anyValue(random, depth - 1));
            return value;
        default:
            value = Json::Value(Json::objectValue);
            for (size_t i = random() % 5; i > 0; --i) value[text()] = anyValue(random, depth - 1);
            return value;
    }
}

TEST(JsonTextTest, WritesWhatTheLibraryWouldWrite) {
    std::mt19937 random(7);
    for (int round = 0; round < 2000; ++round) {
        const Json::Value value = anyValue(random, 4);
        std::string text;
        writeJson(value, [&text](std::string_view piece) { text += piece; });
        ASSERT_EQ(text, Json::FastWriter().write(value));
    }
    // In pieces of one size, whatever lies across their bounds.
    Json::Value large(Json::arrayValue);
    for (int i = 0; i < 3; ++i)
        large.append(std::string(kPieceBytes - 3 + static_cast<size_t>(i), 'x'));
    std::vector<size_t> sizes;
    std::string text;
    writeJson(large, [&](std::string_view piece) {
        sizes.push_back(piece.size());
        text += piece;
    });
    EXPECT_EQ(text, Json::FastWriter().write(large));
    for (size_t i = 0; i + 1 < sizes.size(); ++i) EXPECT_EQ(sizes[i], kPieceBytes);
}

TEST(JsonTextTest, NestingStopsShortOfTheLibrarysOwnLimit) {
    Json::Value value;
    const auto nested = [](size_t depth, const std::string& inside) {
        return std::string(depth, '[') + inside + std::string(depth, ']');
    };
    EXPECT_TRUE(parseJson(nested(999, "1"), value));
    EXPECT_FALSE(parseJson(nested(1000, "1"), value));
    EXPECT_FALSE(parseJson(nested(100000, ""), value));
    // Brackets in strings and comments do not nest.
    EXPECT_TRUE(parseJson("[\"" + std::string(5000, '[') + "\\\"[\"]", value));
    const std::string comment = "/*" + std::string(5000, '[') + "*/";
    EXPECT_TRUE(parseJson("// " + std::string(5000, '{') + "\n[" + comment + "1]", value));
    // But brackets behind a comment do.
    EXPECT_FALSE(parseJson("/**//**/" + nested(1000, "1"), value));
    EXPECT_FALSE(parseJson("//\n" + nested(1000, "1"), value));
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
