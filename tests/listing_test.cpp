// Listings of great groups, and in pages.

#include <fcntl.h>

#include <filesystem>
#include <thread>

#include "tests/support/sandbox.h"

namespace rux::test {
namespace {

namespace fs = std::filesystem;

constexpr char kGroups[] = "RUXCheckNoCompress.json";
constexpr char kModified[] = "RUXModifyFileInfo.json";

class ListingTest : public ServiceTest {
  protected:
    Json list(const Json& regs = {".*"}, const Json& dirs = Json::array()) const {
        const Json page = Json::parse(call(2, rule("s", regs, dirs)));
        EXPECT_EQ(page["isEnd"], 1);
        return page["s"];
    }
    static Json counts(int groups, int files, int64_t bytes) {
        return {{"gCount", groups}, {"fileCount", files}, {"size", bytes}};
    }
    /// Makes `path` look modified since the scan.
    static void touch(const std::string& path) {
        const timespec times[] = {{1, 0}, {1, 0}};
        ASSERT_EQ(utimensat(AT_FDCWD, path.c_str(), times, 0), 0);
    }
};

TEST_F(ListingTest, TakesGroupsOfAnySizeInTheirOrder) {
    const std::string a = sandbox.write("a", "same");
    const std::string b = sandbox.write("b", "same");
    const std::string modified = sandbox.write("modified", "same");
    const std::string missing = sandbox.path("missing");
    scanTree();
    touch(modified);
    Json groups = Json::object();
    const auto add = [&groups](std::vector<std::string> paths, const std::string& last) {
        paths.push_back(last);
        groups["group" + std::to_string(groups.size())] = {{"V", 1},
                                                           {"f_size", 4},
                                                           {"f_list", paths}};
    };
    add({}, a);  // not looked at
    add(std::vector<std::string>(5000, a), b);
    add({missing}, modified);
    add(std::vector<std::string>(5000, b), modified);  // counts, and is retired
    add(std::vector<std::string>(4999, missing), a);
    add({a, modified}, b);
    add({b}, a);
    writeFile(sandbox.database("s", kGroups), groups.dump());
    EXPECT_EQ(list(), counts(3, 5001 + 5000 + 2, int64_t{4} * (5001 - 1 + 5000 - 1 + 2 - 1)));
    EXPECT_EQ(logged("file no exist."), 1 + 4999);
    EXPECT_EQ(logged(" readDupFiles:"), 1 + 4999 + 3) << "whose lines they are";
    for (const char* digest : {"group2", "group3", "group5"}) groups.erase(digest);
    EXPECT_EQ(database(kGroups), groups);
    const Json retired = {{"V", 1}, {"r_flag", 0}};
    EXPECT_EQ(database(kModified), Json({{missing, retired}, {b, retired}, {a, retired}}));
}

TEST_F(ListingTest, StopsWithoutRetiringAnything) {
    const std::string modified = sandbox.write("a1", "same");
    const std::string a2 = sandbox.write("a2", "same");
    const std::string b = sandbox.write("b", "other");
    scanTree();
    touch(modified);
    const auto group = [](const std::vector<std::string>& paths) {
        return Json({{"V", 1}, {"f_size", 4}, {"f_list", paths}});
    };
    const Json groups = {{"0", group({a2, modified})},
                         {"1", group({a2, a2})},
                         {"2", group(std::vector<std::string>(200000, b))}};
    writeFile(sandbox.database("s", kGroups), groups.dump());
    Json page;
    std::jthread client([&] { page = Json::parse(call(2, rule("s", {".*"}, {"1", "2"}))); });
    ASSERT_TRUE(waitFor([this] { return logged("is modified.") == 1; }));
    setProperty("sys.ruxservice.stop_get_duplicate_files", "true");  // in group "1" or "2"
    client.join();
    EXPECT_LE(page["s"]["gCount"], 1) << "the group under examination is not counted";
    EXPECT_EQ(page["isEnd"], 1);
    EXPECT_EQ(logged("[RUX-NATIVE] stop."), 1);
    EXPECT_EQ(logged("get dup stop."), 2);
    EXPECT_EQ(database(kGroups), groups);
    EXPECT_EQ(database(kModified), Json({{a2, {{"V", 1}, {"r_flag", 0}}}}));
}

TEST_F(ListingTest, ComesInPages) {
    // Control characters take six bytes each in a reply, so a page needs fewer spaces.
    const std::string padding(240, '\x01');
    const std::string zeros = R"({"fileCount":0,"gCount":0,"size":0})";
    const size_t entryBytes = 2 + 240 * 6 + 5 + 1 + zeros.size() + 1;  // with its comma
    const size_t perPage = 614400 / entryBytes + 1;                    // the first that is too many
    ASSERT_GT(perPage * entryBytes + 2, 614400U);
    Json rules = Json::array();
    for (size_t i = 0; i < 2 * perPage; ++i) {
        const std::string space = padding + std::to_string(10000 + i);
        fs::create_directory(sandbox.database(space));
        rules.push_back({{"sid", space}, {"regs", {".*"}}});
    }
    const std::string first = call(2, rules);
    EXPECT_EQ(first.size(), perPage * entryBytes + 2 + std::string("\"isEnd\":0,").size());
    EXPECT_EQ(Json::parse(first).size(), perPage + 1);
    EXPECT_EQ(Json::parse(first)["isEnd"], 0);
    scanTree();  // other operations may run between two pages
    const Json second = Json::parse(call(2, "garbage"));
    EXPECT_EQ(second.size(), perPage + 1);
    EXPECT_EQ(second["isEnd"], 0);
    EXPECT_EQ(call(2, "{"), "{\"isEnd\":1}\n");
    EXPECT_EQ(logged("Rux_getDuplicateFilesImp is transfer"), 2);
    EXPECT_EQ(logged("the size is larger"), 2);
    EXPECT_EQ(logged("analysis fail"), 0);
    EXPECT_EQ(list(), counts(0, 0, 0)) << "the next call starts a new listing";

    // The client puts pages together, its own after what somebody else has left.
    call(2, rules);
    EXPECT_EQ(ruxctl({"list", "--space", "s", "--json"}).out,
              "{\"spaces\":[{\"bytes\":0,\"files\":0,\"groups\":0,\"space\":\"s\"}],"
              "\"total\":{\"bytes\":0,\"files\":0,\"groups\":0}}\n");
}

}  // namespace
}  // namespace rux::test
