// Requests and database files of every wrong shape: the service says so and answers the next call.

#include <filesystem>

#include "tests/support/sandbox.h"

namespace rux::test {
namespace {

namespace fs = std::filesystem;

const char* const kFiles[] = {"RUXFileInfo.json", "RUXCheckNoCompress.json",
                              "RUXCheckACompress.json", "RUXModifyFileInfo.json"};

class BadDataTest : public ServiceTest {
  protected:
    void SetUp() override {
        ServiceTest::SetUp();
        sandbox.write("a", "same");
        sandbox.write("b", "same");
    }
    void expectServiceWorks() {
        ASSERT_TRUE(isRunning()) << log();
        EXPECT_EQ(call(2, "[]"), "{\"isEnd\":1}\n");
        EXPECT_EQ(readFile(sandbox.path("a")) + readFile(sandbox.path("b")), "samesame");
    }
};

TEST_F(BadDataTest, DatabaseFilesOfTheWrongShape) {
    const std::string a = sandbox.path("a");
    const std::string b = sandbox.path("b");
    const std::string cut = a + std::string("\0x", 2);  // a NUL does not end a path
    const Json group = {{"V", 1}, {"f_size", 4}, {"f_list", {a, b}}};
    std::vector<std::string> contents = {
            "",
            "null",
            "[]",
            "[1,2]",
            "5",
            "\"x\"",
            "{",
            "{\"a\":",
            "not JSON",
            "{\"\":5}",
            std::string(100000, '{'),
            std::string("\0\0\0", 3),
            Json({{a, 5}, {b, {a}}, {"k", nullptr}}).dump(),
            Json({{a, {{"is_md5", "1"}, {"s_time", {}}}}, {b, {{"is_md5", 1e300}}}}).dump(),
            Json({{"d1", {{"f_list", "x"}}}, {"d2", {{"f_list", {1, nullptr, {a}}}}}}).dump(),
            Json({{"", group}, {"d", {{"f_size", "x"}, {"f_list", {5, cut, ""}}}}}).dump(),
            Json({{"d", {{"f_size", -5}, {"f_list", {cut, a, b}}}}}).dump(),
            Json({{"d", {{"f_size", INT64_MAX}, {"f_list", {a, b, a, b, a}}}}}).dump(),
            "{\"\xff\":{\"f_list\":[\"\xc0\xaf\",\"\xff\"]}}",
            "// comment\n" + Json({{"d", group}}).dump(),
    };
    for (const std::string& content : contents) {
        SCOPED_TRACE(content.substr(0, 200));
        for (const int code : {1, 2, 3, 4}) {
            fs::create_directories(sandbox.database("s"));
            for (const char* file : kFiles) writeFile(sandbox.database("s", file), content);
            call(code, code == 3 ? Json::array({"s"}) : rule("s", {".*"}, {sandbox.tree()}));
            expectServiceWorks();
        }
        EXPECT_EQ(call(4, rule("s", {".*"}, Json::array())).find('-'), std::string::npos);
    }
    // Whatever a space's files held, a scan leaves a sound database.
    for (const char* file : kFiles) writeFile(sandbox.database("s", file), "[1]");
    scanTree();
    EXPECT_EQ(database(kFiles[0]).size(), 2U);
    EXPECT_EQ(database(kFiles[1])[md5sum(a)]["f_list"].size(), 2U);
}

}  // namespace
}  // namespace rux::test
