// Compressions: copies become links, and the groups move.

#include <filesystem>

#include "tests/support/sandbox.h"

namespace rux::test {
namespace {

namespace fs = std::filesystem;

constexpr char kGroups[] = "RUXCheckNoCompress.json";
constexpr char kLinked[] = "RUXCheckACompress.json";
constexpr char kProgress[] = "sys.ruxservice.compress.prog";
constexpr char kStop[] = "sys.ruxservice.stop_compress";

class CompressTest : public ServiceTest {
  protected:
    std::string compress() const { return call(3, Json::array({"s"})); }
    /// The paths of the group that `path` belongs to, in their order.
    std::vector<std::string> membersOf(const std::string& path) const {
        return database(kGroups)[md5sum(path)]["f_list"];
    }
};

TEST_F(CompressTest, LinksCopiesAndMovesTheirGroup) {
    for (const char* name : {"a1", "a2", "a3"}) sandbox.write(name, std::string(1000, 'a'));
    sandbox.write("single", "s");
    scanTree();
    const Json group = database(kGroups)[md5sum(sandbox.path("a1"))];
    const ino_t kept = inodeOf(group["f_list"][0]);
    EXPECT_EQ(compress(), "1,2000");
    for (const char* name : {"a1", "a2", "a3"}) {
        EXPECT_EQ(inodeOf(sandbox.path(name)), kept);
        EXPECT_EQ(readFile(sandbox.path(name)), std::string(1000, 'a'));
    }
    EXPECT_EQ(database(kGroups).size(), 1U);
    EXPECT_EQ(database(kLinked), Json({{md5sum(sandbox.path("a1")), group}}));
    EXPECT_EQ(run({"ls", "-A", sandbox.tree()}).out, "a1\na2\na3\nsingle\n");
    EXPECT_EQ(compress(), "0,0");
    EXPECT_EQ(logged("compress result 1,2000."), 1);
    // A new copy forms a group of its own; the linked one stays as it is.
    sandbox.write("a4", std::string(1000, 'a'));
    scanTree();
    EXPECT_EQ(membersOf(sandbox.path("a4")), std::vector<std::string>{sandbox.path("a4")});
}

TEST_F(CompressTest, WorksAroundMembersThatHaveGone) {
    for (const char* name : {"a1", "a2", "a3"}) sandbox.write(name, "aaa");
    for (const char* name : {"b1", "b2", "c1", "c2", "d1", "d2"}) sandbox.write(name, {name[0]});
    scanTree();
    const auto a = membersOf(sandbox.path("a1"));
    const auto b = membersOf(sandbox.path("b1"));
    const auto c = membersOf(sandbox.path("c1"));
    fs::remove(a[0]);
    fs::remove(b[0]);
    fs::remove(c[1]);
    writeFile(sandbox.path("d2"), "D");  // in place, in the same second: only a comparison can tell
    EXPECT_EQ(compress(), "1,3");
    EXPECT_EQ(inodeOf(a[1]), inodeOf(a[2]));
    EXPECT_EQ(logged("the group is deleted"), 1);
    EXPECT_EQ(logged("file " + c[1] + " is deleted"), 1);
    EXPECT_EQ(logged("createHardLink fail, error code 84"), 1);
    EXPECT_EQ(readFile(sandbox.path("d1")) + readFile(sandbox.path("d2")), "dD");
    EXPECT_EQ(database(kGroups).size(), 1U);
    EXPECT_EQ(database(kLinked).size(), 3U);
}

TEST_F(CompressTest, PublishesProgressInHundreds) {
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

TEST_F(CompressTest, HasClosedWhatItReplacedWhenItAnswers) {
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

TEST_F(CompressTest, StopsAfterALinkAndGoesOnLater) {
    for (const char* name : {"f1", "f2", "f3"}) sandbox.write(name, "same");
    scanTree();
    setProperty(kStop, "true");
    EXPECT_EQ(call(3, "[]"), "0,0");
    EXPECT_EQ(property(kStop), "false");
    EXPECT_EQ(property(kProgress), "0");
    {
        HeldFiles groups({sandbox.database("s", kGroups)});
        std::string result;
        std::jthread client([&] { result = compress(); });
        EXPECT_TRUE(groups.awaitReader());
        setProperty(kStop, "true");
        groups.letGo();
        client.join();
        EXPECT_EQ(result, "1,4");
    }
    EXPECT_EQ(logged("compressFile:"), 2);
    EXPECT_EQ(logged("the compressedGroupCount is 0, selfadd."), 1);
    EXPECT_EQ(logged("compress stop."), 2);
    EXPECT_EQ(database(kLinked), Json::object());
    EXPECT_EQ(statusOf(membersOf(sandbox.path("f1"))[0]).st_nlink, 2U);
    EXPECT_EQ(compress(), "1,8");
    EXPECT_EQ(statusOf(sandbox.path("f1")).st_nlink, 3U);
    EXPECT_EQ(call(3, Json::array({"s", "unknown", "..", "s"})), "0,0");
    EXPECT_EQ(logged("Rux_compressDuplicateFilesImp:") - logged("compress result"), 3);
}

TEST_F(CompressTest, SwitchesTheLibrarysLogOnForGood) {
    sandbox.write("a1", "same");
    scanTree();
    EXPECT_EQ(logged("tavo_f2fs_io"), 0);
    setProperty("sys.ruxservice.enablelog.ctrl", "true");
    call(2, rule("s", {".*"}, Json::array()));
    sandbox.write("a2", "same");
    setProperty("sys.ruxservice.enablelog.ctrl", "TRUE");
    scanTree();
    EXPECT_EQ(logged("tavo_f2fs_io"), 0) << "neither a listing nor another spelling switches it on";
    setProperty("sys.ruxservice.enablelog.ctrl", "true");
    compress();
    setProperty("sys.ruxservice.enablelog.ctrl", "false");
    sandbox.write("a3", "same");
    scanTree();
    EXPECT_EQ(logged("createHardLink"), 1);
    EXPECT_EQ(logged("computeFileMD5 " + sandbox.path("a3") + ": 0 (ok)"), 1);
}

}  // namespace
}  // namespace rux::test
