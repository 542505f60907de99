// Restores: linked files get data of their own again.

#include <linux/limits.h>
#include <sys/xattr.h>

#include <fcntl.h>

#include "tests/support/sandbox.h"

namespace rux::test {
namespace {

constexpr char kLinked[] = "RUXCheckACompress.json";
constexpr char kModified[] = "RUXModifyFileInfo.json";

class RestoreTest : public ServiceTest {
  protected:
    void SetUp() override {
        ServiceTest::SetUp();
        for (const char* name : {"x/a1", "x/a2", "y/a3"}) sandbox.write(name, std::string(10, 'a'));
        for (const char* name : {"x/b1", "z/b2"}) sandbox.write(name, std::string(100, 'b'));
        scanTree();
        EXPECT_EQ(call(3, Json::array({"s"})), "2,120");
    }
    std::string restore(const Json& regs, const Json& dirs) const {
        return call(4, rule("s", regs, dirs));
    }
};

TEST_F(RestoreTest, GivesEveryFileOfASelectedGroupItsOwnData) {
    const std::string a1 = sandbox.path("x/a1");
    if (geteuid() == 0) {
        ASSERT_EQ(chown(a1.c_str(), 4321, 1234), 0);
    }
    chmod(a1.c_str(), 0640);
    const timespec times[] = {{1000000000, 123456789}, {1100000000, 987654321}};
    utimensat(AT_FDCWD, a1.c_str(), times, 0);
    const struct stat before = statusOf(a1);
    const bool hasXattr = setxattr(a1.c_str(), "user.note", "kept", 4, 0) == 0;
    EXPECT_EQ(restore({".*"}, Json::array()), "120\n");
    std::set<ino_t> inodes;
    for (const char* name : {"x/a1", "x/a2", "y/a3"}) {
        const struct stat st = statusOf(sandbox.path(name));
        inodes.insert(st.st_ino);
        EXPECT_EQ(st.st_nlink, 1U);
        EXPECT_EQ(st.st_mode & 07777, 0640U);
        EXPECT_EQ(st.st_uid, before.st_uid);
        EXPECT_EQ(st.st_gid, before.st_gid);
        EXPECT_EQ(st.st_mtim.tv_sec, times[1].tv_sec);
        EXPECT_EQ(st.st_mtim.tv_nsec, times[1].tv_nsec);
        EXPECT_EQ(st.st_atim.tv_sec, times[0].tv_sec);
        EXPECT_EQ(st.st_atim.tv_nsec, times[0].tv_nsec);
        char note[8] = {};
        if (hasXattr) {
            EXPECT_EQ(getxattr(sandbox.path(name).c_str(), "user.note", note, sizeof(note)), 4);
        }
        EXPECT_EQ(readFile(sandbox.path(name)), std::string(10, 'a'));
    }
    EXPECT_EQ(inodes.size(), 3U);
    EXPECT_EQ(inodes.count(before.st_ino), 1U) << "the last link stays where it is";
    EXPECT_EQ(database(kLinked), Json::object());
    EXPECT_EQ(database(kModified).size(), 5U);
    EXPECT_EQ(database(kModified)[a1], Json({{"V", 1}, {"r_flag", 1}}));
    EXPECT_EQ(logged("restoreFile:"), 2 + 2 * 5);
    EXPECT_EQ(logged("restoreLinkFile success"), 5);
    EXPECT_EQ(logged("restoreLinkFile path: " + a1 + "."), 1);
    EXPECT_EQ(restore({".*"}, Json::array()), "0\n");
    scanTree();  // restored groups are not formed again
    EXPECT_EQ(database("RUXCheckNoCompress.json"), Json::object());
}

TEST_F(RestoreTest, PathsOfTheGreatestLengthGoTheWholeRoad) {
    std::string deep = "deep";
    while (sandbox.path(deep).size() < 3850) deep += "/" + std::string(150, 'd');
    const size_t left = PATH_MAX - 1 - sandbox.path(deep).size() - 1;
    const std::string first = sandbox.write(deep + "/" + std::string(left - 1, '1'), "equal");
    const std::string second = sandbox.write(deep + "/" + std::string(left, '2'), "equal");
    ASSERT_EQ(second.size(), PATH_MAX - 1U);
    scanTree();
    const Json listed = Json::parse(call(2, rule("s", {".*"}, Json::array())));
    EXPECT_EQ(listed["s"]["fileCount"], 2);
    EXPECT_EQ(call(3, Json::array({"s"})), "1,5");
    EXPECT_EQ(inodeOf(first), inodeOf(second));
    EXPECT_EQ(restore({".*/2+"}, Json::array()), "5\n");
    EXPECT_NE(inodeOf(first), inodeOf(second));
    EXPECT_EQ(readFile(first) + readFile(second), "equalequal");
}

}  // namespace
}  // namespace rux::test
