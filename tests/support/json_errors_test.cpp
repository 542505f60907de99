#include <gtest/gtest.h>
#include <json/json.h>

#include <csignal>

namespace {

TEST(JsonErrorsTest, EndTheProcess) {
    const Json::Value text("text");
    EXPECT_EXIT(text.asInt(), testing::KilledBySignal(SIGABRT), "JSON library: ");
    EXPECT_EXIT(text["member"], testing::KilledBySignal(SIGABRT), "JSON library: ");
    EXPECT_EXIT(Json::Value(1).append(2), testing::KilledBySignal(SIGABRT), "JSON library: ");
}

}  // namespace
