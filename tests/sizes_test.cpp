// Great numbers, great groups, long paths, many spaces; and what can only be seen while an
// operation runs over many files. What operations do else is the model's matter.

#include <fcntl.h>
#include <linux/limits.h>
#include <unistd.h>

#include <filesystem>

#include "tests/support/sandbox.h"

namespace rux::test {
namespace {

namespace fs = std::filesystem;

constexpr char kRecords[] = "RUXFileInfo.json";
constexpr char kGroups[] = "RUXCheckNoCompress.json";
constexpr char kModified[] = "RUXModifyFileInfo.json";
constexpr char kProgress[] = "sys.ruxservice.compress.prog";

class SizesTest : public ServiceTest {
  protected:
    Json list() const {
        const Json page = Json::parse(call(2, rule("s", {".*"}, Json::array())));
        EXPECT_EQ(page["isEnd"], 1);
        return page["s"];
    }
    static Json counts(int groups, int files, int64_t bytes) {
        return {{"gCount", groups}, {"fileCount", files}, {"size", bytes}};
    }
    std::string compress() const { return call(3, Json::array({"s"})); }
};

TEST_F(SizesTest, FindsMembersOfLargeGroupsAgain) {
    constexpr size_t kFiles = 16385;  // one more than enter their groups at once
    for (size_t i = 0; i < kFiles; ++i)
        sandbox.write("d" + std::to_string(i % 7) + "/" + std::to_string(i), "x");
    scanTree();
    // Without the records all members are met anew; one that is edited into the group is there
    // already.
    Json groups = database(kGroups);
    const std::string digest = md5sum(sandbox.path("d0/0"));
    EXPECT_EQ(groups[digest]["f_list"].size(), kFiles);
    const std::string added = sandbox.write("e/added", "x");
    groups[digest]["f_list"].push_back(added);
    writeFile(sandbox.database("s", kGroups), groups.dump());
    scanTree();
    EXPECT_EQ(database(kGroups), groups);
    EXPECT_EQ(database(kRecords)[added]["is_md5"], 1);
    fs::remove(sandbox.database("s", kRecords));
    scanTree();
    EXPECT_EQ(database(kGroups), groups);
    EXPECT_EQ(database(kRecords).size(), kFiles + 1);
}

TEST_F(SizesTest, LongFilesAreGivenUpWhenStoppedAndTheirHolesSkipped) {
    constexpr off_t kSize = off_t{8} << 40;
    Json paths = Json::array();
    for (const char* name : {"a", "b"}) {
        paths.push_back(sandbox.write(name, "x"));
        if (truncate(sandbox.path(name).c_str(), kSize) != 0) GTEST_SKIP() << "needs long files";
    }
    std::atomic<bool> isDone{false};
    std::jthread client([&] {
        transact(1, rule("s", {".*"}, {sandbox.path("a")}));  // not ahead of its turn
        isDone = true;
    });
    EXPECT_TRUE(waitFor([this] {
        const std::string fds = "/proc/" + std::to_string(pid()) + "/fd";
        return !run({"find", fds, "-lname", sandbox.path("?")}).out.empty();
    }));
    setProperty("sys.ruxservice.stop_scan", "true");
    if (!waitFor([&isDone] { return isDone.load(); })) kill();
    client.join();
    EXPECT_EQ(logged("cal md5 error code != 0, continue"), 1);
    const Json groups = {{"0", {{"V", 1}, {"f_size", kSize}, {"f_list", paths}}}};
    writeFile(sandbox.database("s", kGroups), groups.dump());
    EXPECT_EQ(compress(), "1," + std::to_string(kSize));
}

TEST_F(SizesTest, TreesDeeperThanAPathAreWalkedAsFarAsPathsReach) {
    const int levels = 2200;
    const Outcome made = run({"python3", "-c",
                              "import os,sys\n"
                              "os.chdir(sys.argv[1])\n"
                              "for i in range(int(sys.argv[2])):\n"
                              "    os.mkdir('d'); os.chdir('d')\n"
                              "    open('f','w').write('x')\n",
                              sandbox.tree(), std::to_string(levels)});
    ASSERT_EQ(made.exit, 0) << made.err;
    scanTree();
    const size_t reachable = (4095 - sandbox.tree().size() - 2) / 2;
    EXPECT_EQ(database(kRecords).size(), reachable);
}

TEST_F(SizesTest, PathsOfTheGreatestLengthGoTheWholeRoad) {
    std::string deep = "deep";
    while (sandbox.path(deep).size() < 3850) deep += "/" + std::string(150, 'd');
    const size_t left = PATH_MAX - 1 - sandbox.path(deep).size() - 1;
    const std::string first = sandbox.write(deep + "/" + std::string(left - 1, '1'), "equal");
    const std::string second = sandbox.write(deep + "/" + std::string(left, '2'), "equal");
    ASSERT_EQ(second.size(), PATH_MAX - 1U);
    scanTree();
    EXPECT_EQ(list(), counts(1, 2, 5));
    EXPECT_EQ(compress(), "1,5");
    EXPECT_EQ(inodeOf(first), inodeOf(second));
    EXPECT_EQ(call(4, rule("s", {".*/2+"}, Json::array())), "5\n");
    EXPECT_NE(inodeOf(first), inodeOf(second));
    EXPECT_EQ(readFile(first) + readFile(second), "equalequal");
}

TEST_F(SizesTest, ListsGroupsOfAnySizeInTheirOrder) {
    const std::string a = sandbox.write("a", "same");
    const std::string b = sandbox.write("b", "same");
    const std::string modified = sandbox.write("modified", "same");
    const std::string missing = sandbox.path("missing");
    scanTree();
    const timespec times[] = {{1, 0}, {1, 0}};
    ASSERT_EQ(utimensat(AT_FDCWD, modified.c_str(), times, 0), 0);
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

TEST_F(SizesTest, ListsInPages) {
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
}

TEST_F(SizesTest, PublishesProgressInHundreds) {
    constexpr int kSize = 1 << 20;  // so that each value stands long enough to be seen
    for (int i = 0; i <= 250; ++i) {
        fs::resize_file(sandbox.write("f" + std::to_string(i), "sparse"), kSize);
    }
    scanTree();
    setProperty(kProgress, "something else");
    std::vector<std::string> seen{property(kProgress)};
    std::string result;
    {
        const Hammer watch([&] {
            const std::string now = property(kProgress);
            if (seen.back() != now) seen.push_back(now);
        });
        result = compress();
    }
    EXPECT_EQ(result, "1," + std::to_string(250 * kSize));
    EXPECT_EQ(seen, (std::vector<std::string>{"something else", "0", "100", "200"}));
}

TEST_F(SizesTest, HasClosedWhatItReplacedWhenItAnswers) {
    for (int round = 0; round < 30; ++round) {
        const std::string space = "r" + std::to_string(round);
        for (const char* name : {"/1", "/2", "/3"})
            sandbox.write(space + name, std::string(1 << 20, 'x'));
        transact(1, rule(space, {".*"}, {sandbox.path(space)}));
        transact(3, Json::array({space}));
        for (const auto& open : fs::directory_iterator("/proc/" + std::to_string(pid()) + "/fd")) {
            std::error_code gone;
            EXPECT_EQ(fs::read_symlink(open, gone).native().find(sandbox.tree()), std::string::npos)
                    << "its blocks are not free";
        }
    }
}

}  // namespace
}  // namespace rux::test
