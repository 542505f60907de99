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

TEST_F(BadDataTest, RequestsOfTheWrongShape) {
    const std::string dir = Json(sandbox.tree()).dump();
    std::vector<std::string> requests = {
            "",
            "null",
            "1",
            "-1.5e308",
            "\"text\"",
            "{}",
            "{\"sid\":\"s\"}",
            "[null]",
            "[[]]",
            "[1,true,\"s\",{}]",
            "[[\"s\"]]",
            "/* comment */ []",
            "[",
            "[\"\\ud800\"]",
            R"([{"sid":null}])",
            R"([{"sid":["s"]}])",
            R"([{"sid":{"a":1}}])",
            R"([{"sid":1.5}])",
            R"([{"sid":"s","regs":5,"dirs":5}])",
            R"([{"sid":"s","regs":{},"dirs":{}}])",
            R"([{"sid":"s","regs":"x","dirs":"y"}])",
            R"([{"sid":"s","regs":[".*"],"dirs":null}])",
            R"([{"sid":"s","regs":[1,[],{}],"dirs":[1,[],{}]}])",
            R"([{"sid":"s","regs":[".*",7],"dirs":[7,)" + dir + "]}]",
            R"([{"sid":"a/b","regs":[".*"],"dirs":[]},{"sid":"a\u0000b","regs":[".*"],"dirs":[]}])",
            R"([{"sid":")" + std::string(5000, 'x') + R"(","regs":[".*"],"dirs":[]}])",
            R"([{"sid":"s","regs":[".*"],"dirs":["","\u0000","x\u0000y","missing"]}])",
            std::string(100000, '['),
            std::string(999, '[') + std::string(999, ']'),
            std::string(1000, '[') + "1" + std::string(1000, ']'),
            "[" + std::string(100000, ' ') + "]",
            R"(["[[[\"[[[", /* [[[ */ "s"])",
    };
    for (const std::string& request : requests) {
        SCOPED_TRACE(request.substr(0, 200));
        for (const int code : {1, 2, 3, 4, 6}) call(code, request);
        expectServiceWorks();
    }
    EXPECT_EQ(database(kFiles[0]).size(), 2U) << "the strings among the entries were taken";
    EXPECT_FALSE(fs::exists(sandbox.database("a")));
}

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
