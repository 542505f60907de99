// Scans: which files are recorded, how, and in which groups.

#include <unistd.h>

#include <filesystem>
#include <thread>

#include "tests/support/sandbox.h"

namespace rux::test {
namespace {

namespace fs = std::filesystem;

constexpr char kRecords[] = "RUXFileInfo.json";
constexpr char kGroups[] = "RUXCheckNoCompress.json";

class ScanTest : public ServiceTest {};

TEST_F(ScanTest, RecordsFilesAndGroupsEqualOnes) {
    const std::string a = sandbox.write("a.tar.gz", "same");
    const std::string b = sandbox.write("sub/b.JPG", "same");
    const std::string c = sandbox.write("sub/c", "other");
    scanTree();
    EXPECT_EQ(database(kRecords).size(), 3U);
    const Json record = {{"V", 1},       {"s_time", statusOf(b).st_mtime},
                         {"c_flag", 0},  {"w_flag", 0},
                         {"reg", "JPG"}, {"is_md5", 1}};
    EXPECT_EQ(database(kRecords)[b], record);
    EXPECT_EQ(database(kGroups).size(), 2U);
    const Json group = database(kGroups)[md5sum(a)];
    EXPECT_EQ(group["V"], 1);
    EXPECT_EQ(group["f_size"], 4);
    EXPECT_EQ(Json(std::set<std::string>(group["f_list"].begin(), group["f_list"].end())),
              Json(std::set<std::string>{a, b}));
    EXPECT_EQ(database(kGroups)[md5sum(c)]["f_list"], Json::array({c}));
    EXPECT_EQ(readFile(sandbox.database("s", "RUXModifyFileInfo.json")), "{}\n");
    EXPECT_FALSE(fs::exists(sandbox.database("s", "RUXCheckACompress.json")));

    // A file that has a digest is not looked at again, a new one joins; nothing else moves.
    const std::string before = readFile(sandbox.database("s", kRecords));
    sandbox.write("sub/c", "changed");
    scanTree();
    EXPECT_EQ(readFile(sandbox.database("s", kRecords)), before);
    sandbox.write("d", "same");
    scanTree();
    EXPECT_EQ(database(kGroups)[md5sum(a)]["f_list"].size(), 3U);
    // Paths that are in their group already do not join it twice.
    fs::remove(sandbox.database("s", kRecords));
    scanTree();
    EXPECT_EQ(database(kGroups)[md5sum(a)]["f_list"].size(), 3U);
}

TEST_F(ScanTest, FindsMembersOfLargeGroupsAgain) {
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

TEST_F(ScanTest, DerivesSuffixesFromNames) {
    const std::pair<const char*, const char*> expected[] = {
            {"archive.tar.gz", "gz"},       {".profile", "profile"},
            {"README", "nosuffix"},         {"file.", "nosuffix"},
            {"x.abcdefghij", "abcdefghij"}, {"x.abcdefghijk", "nosuffix"},
            {"dir.d/plain", "nosuffix"},
    };
    for (const auto& [name, suffix] : expected) sandbox.write(name, name);
    scanTree();
    for (const auto& [name, suffix] : expected) {
        EXPECT_EQ(database(kRecords)[sandbox.path(name)]["reg"], suffix) << name;
    }
    // Started on the file itself, the whole path is the name.
    call(1, rule("one", {".*"}, {sandbox.path("dir.d/plain"), sandbox.path("archive.tar.gz")}));
    EXPECT_EQ(database(kRecords, "one")[sandbox.path("dir.d/plain")]["reg"], "nosuffix");
    EXPECT_EQ(database(kRecords, "one")[sandbox.path("archive.tar.gz")]["reg"], "gz");
}

TEST_F(ScanTest, SelectsByWholePathAndLeavesExceptionsAlone) {
    const std::string photo = sandbox.write("a.jpg", "x");
    const std::string secret = sandbox.write("private/b.jpg", "x");
    sandbox.write("c.txt", "x");
    call(6, Json::array({".*/private", ".*/private/.*"}));
    EXPECT_EQ(Json::parse(readFile(sandbox.database("RUXExceptRules.json"))),
              Json::array({".*/private", ".*/private/.*"}));
    call(1, rule("s", {"jpg", "a(", R"(.*\.jpg)"}, {sandbox.tree()}));
    EXPECT_EQ(logged("invalid pattern a("), 1);
    EXPECT_EQ(database(kRecords).size(), 2U);
    EXPECT_EQ(database(kRecords)[photo]["is_md5"], 1);
    EXPECT_EQ(database(kRecords)[secret]["is_md5"], 0);
    EXPECT_EQ(database(kGroups)[md5sum(photo)]["f_list"], Json::array({photo}));
    EXPECT_EQ(logged("calculateFileMD5"), 1);
    EXPECT_EQ(logged("the file is in black list"), 1);

    // Refused rules leave those in force; a file that is no list of rules counts as none.
    const std::string stored = readFile(sandbox.database("RUXExceptRules.json"));
    for (const char* wrong : {"[]", "{}", "null", "\"x\"", "[1]", "{\"a\":1}", "[[]]"})
        call(6, wrong);
    EXPECT_EQ(logged("Rux_setRUXExceptRulesImp is empty"), 7);
    call(6, "[\"x\"");
    EXPECT_EQ(logged("Rux_setRUXExceptRulesImp analysis fail"), 1);
    EXPECT_EQ(readFile(sandbox.database("RUXExceptRules.json")), stored);
    writeFile(sandbox.database("RUXExceptRules.json"), "{\"not\": [\"a list\"]}");
    scanTree();
    EXPECT_EQ(database(kRecords)[secret]["is_md5"], 1);
    writeFile(sandbox.database("RUXExceptRules.json"), "not JSON");
    scanTree();
    EXPECT_EQ(logged("getExceptRiles"), 1);
}

TEST_F(ScanTest, FollowsLinksAndSkipsWhatItCannotEnter) {
    const std::string file = sandbox.write("dir/file", "content");
    sandbox.write("empty1", "");
    sandbox.write("empty2", "");
    mkfifo(sandbox.path("pipe").c_str(), 0600);
    fs::create_symlink(sandbox.path("missing"), sandbox.path("dangling"));
    fs::create_symlink("dir", sandbox.path("linked"));
    fs::create_symlink("dir/file", sandbox.path("alias"));
    fs::create_symlink(sandbox.tree(), sandbox.path("dir/up"));  // a cycle
    const std::string bad = sandbox.write("bad\xff name", "not UTF-8");
    sandbox.write(".rux-swap-0123456789abcdef0123456789abcdef", "left by a kill");
    const std::string users =
            sandbox.write(".rux-swap-of-a-user-who-likes-such-long-name", "a file");
    scanTree();
    std::set<std::string> paths;
    const Json records = database(kRecords);
    for (const auto& [path, record] : records.items()) paths.insert(path);
    EXPECT_EQ(paths, (std::set<std::string>{file, sandbox.path("linked/file"),
                                            sandbox.path("alias"), users}));
    EXPECT_EQ(logged("E rux     : scanSpaceID"), 6);
    EXPECT_EQ(logged("[RUX-NATIVE:stat] The directory cannot be opened."), 1);
    EXPECT_EQ(logged("[RUX-NATIVE:opendir] The directory cannot be opened."),
              5);  // with two cycles
    EXPECT_EQ(logged("is not valid UTF-8"), 1);

    // Paths are taken letter by letter, starting paths that cannot be walked are passed over.
    call(1, rule("t", {".*"}, {"/no/such", sandbox.path("empty1"), sandbox.path("dir/")}));
    EXPECT_EQ(logged("scanSpaceID fail"), 2);
    EXPECT_TRUE(database(kRecords, "t").contains(sandbox.path("dir//file")));
}

TEST_F(ScanTest, TreesDeeperThanAPathAreWalkedAsFarAsPathsReach) {
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

TEST_F(ScanTest, ReadsRulesElementByElement) {
    sandbox.write("a/x", "1");
    sandbox.write("b/y", "2");
    const std::string a = sandbox.path("a");
    const std::string b = sandbox.path("b");
    const std::string c = sandbox.write("c/z", "3");
    const Json dirs = Json::array({b});
    const Json any = Json::array({".*"});
    call(1, Json::array({
                    {{"regs", any}, {"dirs", dirs}},  // no space yet: skipped
                    {{"sid", "s"}, {"regs", any}, {"dirs", Json::array({a})}},
                    {{"regs", any}, {"dirs", dirs}},              // into space s
                    {{"sid", 5}, {"regs", any}, {"dirs", dirs}},  // malformed: skipped
                    {{"regs", any}, {"dirs", Json::array({c})}},  // and no space is in force now
                    "no object",
                    {{"sid", "noregs"}, {"dirs", dirs}},                 // made and loaded only
                    {{"sid", "nodirs"}, {"regs", any}},                  // saved
                    {{"sid", "../out"}, {"regs", any}, {"dirs", dirs}},  // cannot be made
                    {{"regs", any}, {"dirs", dirs}},                     // and nothing loaded now
            }));
    EXPECT_EQ(database(kRecords).size(), 2U);
    EXPECT_EQ(database(kRecords, "noregs"), Json::object());
    EXPECT_EQ(readFile(sandbox.database("nodirs", kGroups)), "{}\n");
    EXPECT_FALSE(fs::exists(sandbox.root() + "/data/local/out"));
    EXPECT_EQ(logged("D rux     : Rux_scanDuplicateFilesImp"), 6);
    EXPECT_EQ(logged("scanRules Incorrect format"), 7);
    EXPECT_EQ(logged("scan rules mkdir SpaceID_DBPath fail"), 1);
    EXPECT_EQ(statusOf(sandbox.database("s")).st_mode & 07777, 0755U);
}

TEST_F(ScanTest, StopsBetweenEntriesAndKeepsWhatItHas) {
    for (int i = 0; i < 20; ++i) sandbox.write("d" + std::to_string(i) + "/f", "x");
    setProperty("sys.ruxservice.stop_scan", "true");
    scanTree();  // a stop from before has no effect
    EXPECT_EQ(database(kRecords).size(), 20U);
    EXPECT_EQ(property("sys.ruxservice.stop_scan"), "false");

    for (int i = 20; i < 3000; ++i)
        sandbox.write("d" + std::to_string(i) + "/f", std::to_string(i));
    const Json twice = Json::array({sandbox.tree(), sandbox.tree()});
    {
        // Once a record is there the scan is inside the walk; its log shows the new directories.
        const Hammer stop([this] { setProperty("sys.ruxservice.stop_scan", "true"); });
        call(1, rule("s", {".*"}, twice));
    }
    EXPECT_GE(logged("scanSpaceID:") + logged("Rux_scanDuplicateFilesImp:"), 1);
    EXPECT_GE(logged("[RUX-NATIVE] stop."), 1);
    EXPECT_LT(database(kRecords).size(), 3000U);
    EXPECT_GE(database(kRecords).size(), 20U);
    scanTree();
    EXPECT_EQ(database(kRecords).size(), 3000U);
}

}  // namespace
}  // namespace rux::test
