// Bad luck: full disks, limits, things that vanish, files cut anywhere. Every fault has its outcome
// in the log, the service lives, and no content is lost.

#include <fcntl.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstring>
#include <filesystem>
#include <thread>

#include "tests/support/open_guard.h"
#include "tests/support/sandbox.h"

namespace rux::test {
namespace {

namespace fs = std::filesystem;

/// A small file system in memory for the length of a scope. Needs root.
class SmallDisk {
  public:
    SmallDisk(std::string at, const std::string& options) : mAt(std::move(at)) {
        fs::create_directories(mAt);
        mMounted = mount("none", mAt.c_str(), "tmpfs", 0, options.c_str()) == 0;
    }
    ~SmallDisk() {
        if (mMounted) umount2(mAt.c_str(), MNT_DETACH);
    }
    SmallDisk(const SmallDisk&) = delete;
    SmallDisk& operator=(const SmallDisk&) = delete;

    bool mounted() const { return mMounted; }
    bool remount(unsigned long flags, const std::string& options) const {
        return mount("none", mAt.c_str(), "tmpfs", MS_REMOUNT | flags, options.c_str()) == 0;
    }

  private:
    std::string mAt;
    bool mMounted;
};

class FaultsTest : public ServiceTest {
  protected:
    std::string compress() const { return call(3, Json::array({"s"})); }
    std::string restore() const { return call(4, rule("s", {".*"}, Json::array())); }
    /// Runs every operation once.
    void runEverything() const {
        for (const int code : {1, 2, 3, 4}) {
            transact(code, code == 3 ? Json::array({"s"}) : rule("s", {".*"}, {sandbox.tree()}));
        }
    }
    static std::string textDigest(const std::string& text) {
        return run({"md5sum"}, "", text).out.substr(0, 32);
    }
    void limit(__rlimit_resource resource, rlim_t value) const {
        rlimit limit = {};
        ASSERT_EQ(prlimit(pid(), resource, nullptr, &limit), 0);
        limit.rlim_cur = value;
        ASSERT_EQ(prlimit(pid(), resource, &limit, nullptr), 0);
    }
};

TEST_F(FaultsTest, FullDiskDuringASave) {
    const SmallDisk disk(sandbox.root() + "/data/local/zel", "size=64k");
    if (!disk.mounted()) GTEST_SKIP() << "needs root";
    sandbox.write("a", "same");
    sandbox.write("b", "same");
    scanTree();
    const std::string records = readFile(sandbox.database("s", "RUXFileInfo.json"));
    const std::string groups = readFile(sandbox.database("s", "RUXCheckNoCompress.json"));
    for (int i = 0; i < 1000; ++i) sandbox.write("many/" + std::to_string(i), std::to_string(i));
    scanTree();
    EXPECT_GE(logged("DBWriteUpdate"), 1);
    EXPECT_EQ(logged("DBWriteUpdate"), logged(" write fail."));
    EXPECT_EQ(readFile(sandbox.database("s", "RUXFileInfo.json")), records);
    EXPECT_EQ(readFile(sandbox.database("s", "RUXCheckNoCompress.json")), groups);
    // What the disk did not take is found again once there is room.
    ASSERT_TRUE(disk.remount(0, "size=8m"));
    scanTree();
    EXPECT_EQ(database("RUXFileInfo.json").size(), 1002U);
    EXPECT_EQ(database("RUXCheckNoCompress.json").size(), 1001U);
}

TEST_F(FaultsTest, FullDiskUnderTheProperties) {
    kill();
    const SmallDisk disk(sandbox.root() + "/run/rux", "mode=0700,size=4k");
    if (!disk.mounted()) GTEST_SKIP() << "needs root";
    writeFile(sandbox.root() + "/run/rux/full", std::string(4096, 'x'));
    sandbox.write("a", "same");
    sandbox.write("b", "same");
    start();
    scanTree();  // sets one
    EXPECT_EQ(call(3, Json::array({"s"})), "1,4");
    const Outcome stop = ruxctl({"stop", "scan"});
    EXPECT_EQ(stop.exit, 1);
    EXPECT_NE(stop.err.find("its disk is full"), std::string::npos) << stop.err;
    EXPECT_TRUE(isRunning());
}

TEST_F(FaultsTest, FullOrReadOnlyDiskUnderTheFiles) {
    const SmallDisk disk(sandbox.path("disk"), "size=3m,nr_inodes=20");
    if (!disk.mounted()) GTEST_SKIP() << "needs root";
    const std::string content(1 << 20, 'x');
    sandbox.write("disk/a", content);
    sandbox.write("disk/b", content);
    scanTree();
    // Every name takes an inode there: with none left there is no link.
    for (int i = 0; i < 20; ++i)
        close(creat(sandbox.path("disk/" + std::to_string(i)).c_str(), 0600));
    EXPECT_EQ(compress(), "0,0");
    EXPECT_EQ(logged("createHardLink fail, error code 28"), 1);
    EXPECT_EQ(run({"sh", "-c", "rm " + sandbox.path("disk/[0-9]*")}).exit, 0);

    fs::remove_all(sandbox.database("s"));
    scanTree();
    ASSERT_TRUE(disk.remount(MS_RDONLY, "size=3m"));
    EXPECT_EQ(compress(), "0,0");
    EXPECT_EQ(logged("createHardLink fail, error code 30"), 1);
    ASSERT_TRUE(disk.remount(0, "size=3m"));
    fs::remove_all(sandbox.database("s"));
    scanTree();
    EXPECT_EQ(compress(), "1,1048576");

    sandbox.write("disk/filler", std::string(3 << 19, 'f'));
    EXPECT_EQ(restore(), "1048576\n");
    EXPECT_EQ(logged("restoreLinkFile fail, error code 28"), 2);
    EXPECT_EQ(inodeOf(sandbox.path("disk/a")), inodeOf(sandbox.path("disk/b")));
    EXPECT_EQ(readFile(sandbox.path("disk/a")), content);
    EXPECT_EQ(run({"ls", "-A", sandbox.path("disk")}).out, "a\nb\nfiller\n");
}

TEST_F(FaultsTest, LimitsOnFileSizeAndDescriptors) {
    std::string deep = "d";
    for (int i = 0; i < 60; ++i) deep += "/d";
    sandbox.write("a", std::string(5000, 'x'));
    sandbox.write("b", std::string(5000, 'x'));
    sandbox.write(deep + "/c", "deep");
    scanTree();
    EXPECT_EQ(compress(), "1,5000");
    limit(RLIMIT_FSIZE, 4000);
    EXPECT_EQ(restore(), "5000\n");
    EXPECT_EQ(logged("restoreLinkFile fail, error code 27"), 2);
    EXPECT_EQ(statusOf(sandbox.path("a")).st_nlink, 2U);
    for (int i = 0; i < 100; ++i) sandbox.write("many/" + std::to_string(i), std::to_string(i));
    scanTree();
    EXPECT_GE(logged(" write fail."), 1);

    kill();
    start();
    fs::remove_all(sandbox.database("s"));
    limit(RLIMIT_NOFILE, 30);
    scanTree();
    EXPECT_GE(logged("[RUX-NATIVE:opendir] The directory cannot be opened."), 1);
    EXPECT_FALSE(database("RUXFileInfo.json").contains(sandbox.path(deep + "/c")));
    limit(RLIMIT_NOFILE, 1024);
    scanTree();
    EXPECT_TRUE(database("RUXFileInfo.json").contains(sandbox.path(deep + "/c")));
    for (const char* copy : {"x", "y"})
        for (int i = 0; i < 100; ++i)
            sandbox.write(copy + std::to_string(i), std::to_string(i) + " of a pair");
    scanTree();
    limit(RLIMIT_NOFILE, 64);
    EXPECT_EQ(compress().substr(0, 4), "101,");
    restore();
    EXPECT_EQ(logged("restoreLinkFile fail"), 2);
    EXPECT_EQ(statusOf(sandbox.path("x99")).st_nlink, 1U);
    EXPECT_TRUE(isRunning());
}

TEST_F(FaultsTest, CountsNoLinkThatIsUndone) {
    const std::string content(96 << 20, 'x');  // that takes its time to compare
    sandbox.write("a", content);
    sandbox.write("b", content);
    sandbox.write("c", "other");
    sandbox.write("d", "other");
    scanTree();
    const Json group = database("RUXCheckNoCompress.json")[md5sum(sandbox.path("a"))];
    const std::string a = group["f_list"][0];
    const std::string b = group["f_list"][1];
    std::string result;
    std::thread writer;
    {
        const OpenGuard guard(b, pid());
        if (!guard.works()) GTEST_SKIP() << "needs root";
        writer = std::thread([&] {
            const std::string inode = ":" + std::to_string(inodeOf(b)) + " ";
            waitFor([&] { return readFile("/proc/locks").find(inode) != std::string::npos; });
            ::kill(pid(), SIGSTOP);  // while it compares, until the writer is on its way
            std::thread hold([&] {
                EXPECT_TRUE(waitFor([&guard] { return guard.holds(); }));
                ::kill(pid(), SIGCONT);
            });
            run({"sh", "-c", "echo late >> " + b});
            hold.join();
        });
        result = compress();
    }
    writer.join();
    EXPECT_EQ(result, "1,5");
    EXPECT_EQ(logged("undone " + b + ": 16 "), 1);
    EXPECT_EQ(database("RUXCheckACompress.json").size(), 2U);
    EXPECT_TRUE(readFile(a) == content);
    EXPECT_TRUE(readFile(b) == content + "late\n");
}

TEST_F(FaultsTest, TidiesUpAfterAKillWhereverItWorksNext) {
    for (const char* name : {"a", "b", "c", "d"}) sandbox.write(name, "same");
    scanTree();
    kill();
    fs::create_hard_link(sandbox.path("d"), sandbox.path(".rux-swap-") + textDigest("d"));
    sandbox.write(".rux-swap-" + textDigest("gone"), "the only name");
    const std::string mark = sandbox.root() + "/run/rux/unsettled";
    writeFile(mark, "");
    start();
    const Json pair = {sandbox.path("a"), sandbox.path("b")};
    writeFile(sandbox.database("s", "RUXCheckNoCompress.json"),
              Json({{"0", {{"V", 1}, {"f_size", 4}, {"f_list", pair}}}}).dump());
    EXPECT_EQ(compress(), "1,4");
    EXPECT_EQ(statusOf(sandbox.path("d")).st_nlink, 1U);
    EXPECT_EQ(readFile(sandbox.path(".rux-swap-" + textDigest("gone"))), "the only name");
    EXPECT_FALSE(fs::exists(mark));
}

TEST_F(FaultsTest, WhatAnOperationThrowsEndsInTheLog) {
    if (RUX_SLOW_AND_LARGE) GTEST_SKIP() << "a sanitizer ends the process instead";
    scanTree();
    // No memory holds this file.
    const std::string huge = sandbox.database("s", "RUXFileInfo.json");
    limit(RLIMIT_AS, rlim_t{1} << 40);
    ASSERT_EQ(truncate(huge.c_str(), off_t{1} << 42), 0);
    EXPECT_EQ(call(2, rule("s", {".*"}, Json::array())), "{}");
    EXPECT_EQ(logged("listing failed: "), 1);
    fs::remove(huge);
    EXPECT_NE(call(2, rule("s", {".*"}, Json::array())), "{}") << "the flag is clear again";
}

TEST_F(FaultsTest, ThingsVanishWhileTheyAreWorkedOn) {
    for (int i = 0; i < 300; ++i) {
        sandbox.write("d" + std::to_string(i % 10) + "/" + std::to_string(i), "same");
    }
    {
        // Directories come and go, and so does the whole database.
        int turn = 0;
        std::error_code ignored;
        const Hammer vanish([&] {
            const std::string directory = sandbox.path("d" + std::to_string(turn++ % 10));
            rename(directory.c_str(), (directory + "-gone").c_str());
            if (turn % 7 == 0) fs::remove_all(sandbox.database("s"), ignored);
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
            rename((directory + "-gone").c_str(), directory.c_str());
        });
        for (int round = 0; round < 30; ++round) runEverything();
    }
    ASSERT_TRUE(isRunning());
    EXPECT_EQ(md5sumsBelow(sandbox.tree()).size(), 300U);
    fs::remove_all(sandbox.database("s"));
    scanTree();
    EXPECT_EQ(database("RUXCheckNoCompress.json").size(), 1U);
    compress();
    restore();
    EXPECT_EQ(run({"find", sandbox.tree(), "-name", ".rux-*"}).out, "");
    for (int i = 0; i < 300; ++i) {
        const std::string name = "d" + std::to_string(i % 10) + "/" + std::to_string(i);
        EXPECT_EQ(readFile(sandbox.path(name)), "same");
    }
}

/// The service as the user of a device's init entry: with a few capabilities, in a group that may
/// reach shared storage.
class DeviceUserTest : public ServiceTest {
  protected:
    void SetUp() override {}

    void startWith(const std::string& capabilities) {
        const std::vector<std::string> user = {"setpriv",
                                               "--reuid=1000",
                                               "--regid=1000",
                                               "--groups=1023",
                                               "--inh-caps=-all," + capabilities,
                                               "--ambient-caps=-all," + capabilities,
                                               "--bounding-set=-all," + capabilities};
        auto probe = user;
        probe.insert(probe.end(), {"test", "-x", ruxBinary()});
        if (geteuid() != 0 || run(probe).exit != 0) GTEST_SKIP() << "needs root";
        EXPECT_EQ(run({"chown", "1000:1000", sandbox.root() + "/.."}).exit, 0);
        EXPECT_EQ(run({"chown", "-R", "1000:1000", sandbox.root()}).exit, 0);
        start(user);
    }
    /// Two equal files in a directory of another user.
    void writePair(const std::string& directory, const std::string& owner, mode_t mode) const {
        sandbox.write(directory + "/1", directory);
        sandbox.write(directory + "/2", directory);
        EXPECT_EQ(run({"chown", "-R", owner, sandbox.path(directory)}).exit, 0);
        for (const char* name : {"/1", "/2"})
            chmod(sandbox.path(directory + name).c_str(), mode & 0666);
        chmod(sandbox.path(directory).c_str(), mode);
    }
    nlink_t links(const std::string& name) const { return statusOf(sandbox.path(name)).st_nlink; }
};

TEST_F(DeviceUserTest, ReachesWhatItsGroupAndCapabilitiesLetItReach) {
    writePair("shared", "10023:1023", 0770);
    writePair("private", "10042:10042", 0700);
    writePair("capable", "10023:1023", 0770);
    for (const char* name : {"capable/1", "capable/2"})
        EXPECT_EQ(run({"setcap", "cap_net_raw+ep", sandbox.path(name)}).exit, 0);
    sandbox.write("shared/hidden", "shared");
    chmod(sandbox.path("shared/hidden").c_str(), 0);
    startWith("+chown,+fowner,+fsetid,+lease");
    if (IsSkipped()) return;
    scanTree();
    EXPECT_EQ(logged("[RUX-NATIVE:opendir] The directory cannot be opened."), 1) << "private";
    EXPECT_EQ(logged("cal md5 error code != 0, continue"), 1) << "hidden";
    EXPECT_EQ(call(3, Json::array({"s"})), "1,6") << log();
    EXPECT_EQ(logged("createHardLink fail, error code 1\n"), 1) << "no copy would be the same";
    EXPECT_EQ(links("shared/1"), 2U);
    EXPECT_EQ(links("private/1"), 1U);
    EXPECT_EQ(call(4, rule("s", {".*shared.*"}, Json::array())), "6\n");
    EXPECT_EQ(links("shared/1"), 1U) << log();
    EXPECT_EQ(statusOf(sandbox.path("shared/2")).st_uid, 10023U);
    kill();

    fs::remove(sandbox.path("shared/hidden"));
    startWith("+chown,+dac_override,+dac_read_search,+fowner,+fsetid,+lease");
    fs::remove_all(sandbox.database("s"));
    scanTree();
    EXPECT_EQ(call(3, Json::array({"s"})), "2,13") << log();
    EXPECT_EQ(links("private/1"), 2U);
    EXPECT_EQ(logged("is deleted"), 0);
}

}  // namespace
}  // namespace rux::test
