// What is linked and restored, and what is refused.

#include <fcntl.h>
#include <sys/mount.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <random>
#include <thread>

#include "tests/support/file_io.h"

namespace rux::test {
namespace {

TEST_F(FileIoTest, DigestsFilesAlone) {
    fs::create_symlink("kept", sandbox.path("link"));
    EXPECT_EQ(std::string(computeFileMD5(sandbox.path("link").c_str(), false).md5), md5sum(kept));
    mkfifo(sandbox.path("pipe").c_str(), 0600);
    EXPECT_EQ(computeFileMD5(sandbox.path("pipe").c_str(), false).code, EINVAL);
    EXPECT_EQ(computeFileMD5(sandbox.tree().c_str(), false).code, EINVAL);
    EXPECT_EQ(computeFileMD5("/proc/self/status", false).code, EINVAL);
    EXPECT_EQ(computeFileMD5(sandbox.path("missing").c_str(), false).code, ENOENT);
    EXPECT_STREQ(computeFileMD5("", false).md5, "");
}

TEST_F(FileIoTest, RefusesToLinkWhatIsNotTheSame) {
    sandbox.write("duplicate", std::string(299999, 'k') + "x");
    expectRefusal(EILSEQ);
    sandbox.write("duplicate", std::string(299999, 'k'));
    expectRefusal(EILSEQ);
    sandbox.write("duplicate", std::string(300000, 'k'));
    chmod(duplicate.c_str(), 0600);
    expectRefusal(EBADE);
    chmod(duplicate.c_str(), statusOf(kept).st_mode & 07777);
    if (setxattr(duplicate.c_str(), "user.label", "l", 1, 0) == 0) {
        expectRefusal(EBADE);
        removexattr(duplicate.c_str(), "user.label");
    }
    if (geteuid() == 0) {
        ASSERT_EQ(chown(duplicate.c_str(), 12345, static_cast<gid_t>(-1)), 0);
        expectRefusal(EBADE);
        ASSERT_EQ(chown(duplicate.c_str(), geteuid(), 12345), 0);
        expectRefusal(EBADE);
        ASSERT_EQ(chown(duplicate.c_str(), geteuid(), getegid()), 0);
    }
    for (const std::string& path : {kept, duplicate}) {  // while somebody writes to one of them
        const int writer = open(path.c_str(), O_RDWR | O_CLOEXEC);
        ASSERT_GE(writer, 0);
        expectRefusal(EBUSY);
        close(writer);
    }
    EXPECT_EQ(link(kept, duplicate), 0);
}

TEST_F(FileIoTest, FindsADifferenceWhereverItIs) {
    // In files so large that two threads compare them, and for several callers at once.
    std::string content((3 << 20) + 777, '\0');
    std::mt19937 random{1};
    for (char& byte : content) byte = static_cast<char>(random());
    std::vector<size_t> places = {content.size() - 1};
    for (size_t at = 0; at < content.size(); at += content.size() / 30) places.push_back(at);
    const auto linkIn = [&](const std::string& directory) {
        const std::string first = sandbox.write(directory + "/first", content);
        const std::string second = sandbox.path(directory + "/second");
        for (const size_t at : places) {
            std::string other = content;
            other[at] ^= 1;
            writeFile(second, other);
            EXPECT_EQ(link(first, second), EILSEQ) << at;
        }
        writeFile(second, content);
        EXPECT_EQ(link(first, second), 0);
        EXPECT_EQ(inodeOf(first), inodeOf(second));
    };
    std::vector<std::thread> callers;
    for (const char* directory : {"a", "b", "c"}) callers.emplace_back(linkIn, directory);
    for (std::thread& caller : callers) caller.join();
}

TEST_F(FileIoTest, RefusesToLinkWhatIsNoFileOfItsOwn) {
    fs::create_symlink("kept", sandbox.path("alias"));
    mkfifo(sandbox.path("pipe").c_str(), 0600);
    const std::vector<std::string> names = namesIn(sandbox.tree());
    EXPECT_EQ(link(kept, sandbox.path("alias")), ELOOP);
    EXPECT_EQ(link(kept, sandbox.path("missing")), ENOENT);
    EXPECT_EQ(link(sandbox.path("missing"), duplicate), ENOENT);
    EXPECT_EQ(link(kept, sandbox.path("pipe")), EINVAL);
    EXPECT_EQ(link(sandbox.path("pipe"), duplicate), EINVAL);
    EXPECT_EQ(link(sandbox.tree(), duplicate), EINVAL);
    EXPECT_EQ(link(kept, sandbox.tree()), EINVAL);
    EXPECT_EQ(link("", duplicate), ENOENT);
    EXPECT_EQ(namesIn(sandbox.tree()), names);
    EXPECT_EQ(statusOf(kept).st_nlink, 1U);
    // Another file system, where there is one to be had.
    struct stat shm = {};
    if (stat("/dev/shm", &shm) == 0 && shm.st_dev != statusOf(kept).st_dev) {
        std::string other = "/dev/shm/rux-test-XXXXXX";
        close(mkstemp(other.data()));
        writeFile(other, readFile(kept));
        EXPECT_EQ(link(kept, other), EXDEV);
        fs::remove(other);
    }
}

TEST_F(FileIoTest, LinksOfOthersLeadToNobodysFiles) {
    if (geteuid() != 0) GTEST_SKIP() << "needs root";
    constexpr uid_t kOwner = 12345;
    constexpr uid_t kOther = 12346;
    const std::string home = sandbox.path("home");
    fs::create_directory(home);
    for (const char* name : {"/1", "/2"}) {
        writeFile(home + name, "private");
        ASSERT_EQ(chown((home + name).c_str(), kOwner, kOwner), 0);
    }
    const auto makeLink = [this](const std::string& target, const std::string& name, uid_t maker) {
        fs::create_symlink(target, sandbox.path(name));
        EXPECT_EQ(lchown(sandbox.path(name).c_str(), maker, maker), 0);
        return sandbox.path(name);
    };
    const std::string others = makeLink("home", "others", kOther);
    const std::string own = makeLink(home, "own", kOwner);
    const std::string roots = makeLink("../tree/own", "roots", 0);
    const std::string mixed = makeLink("others", "mixed", 0);
    const std::string member = makeLink("home/1", "member", kOther);
    for (const std::string& way : {others, mixed, others + "/../others//"}) {
        EXPECT_EQ(link(home + "/1", way + "/2"), ELOOP) << way;
        EXPECT_EQ(link(way + "/1", home + "/2"), ELOOP) << way;
    }
    EXPECT_EQ(link(member, home + "/2"), ELOOP);
    EXPECT_EQ(statusOf(home + "/1").st_nlink, 1U);
    for (const std::string& way : {own, roots}) {
        EXPECT_EQ(link(way + "/1", way + "/2"), 0) << way;
        EXPECT_EQ(restore(others + "/2"), ELOOP);
        EXPECT_EQ(statusOf(home + "/1").st_nlink, 2U);
        EXPECT_EQ(restore(way + "/2"), 0) << way;
    }
    makeLink("round", "round", 0);
    EXPECT_EQ(link(home + "/1", sandbox.path("round/2")), ELOOP);
}

TEST_F(FileIoTest, RestoredFilesKeepTheirHolesAndTimes) {
    const std::string sparse = sandbox.write("sparse", "start");
    ASSERT_EQ(truncate(sparse.c_str(), 50 << 20), 0);
    const int file = open(sparse.c_str(), O_WRONLY | O_CLOEXEC);
    ASSERT_EQ(pwrite(file, "middle", 6, 20 << 20), 6);
    close(file);
    fs::create_hard_link(sparse, sandbox.path("other"));
    const timespec times[] = {{1000000000, 123456789}, {900000000, 987654321}};
    utimensat(AT_FDCWD, sparse.c_str(), times, 0);
    EXPECT_EQ(restore(sparse), 0);
    const struct stat restored = statusOf(sparse);
    EXPECT_EQ(restored.st_nlink, 1U);
    EXPECT_EQ(restored.st_atim.tv_sec, times[0].tv_sec);
    EXPECT_EQ(restored.st_atim.tv_nsec, times[0].tv_nsec);
    EXPECT_EQ(restored.st_mtim.tv_nsec, times[1].tv_nsec);
    EXPECT_EQ(run("cmp " + sparse + " " + sandbox.path("other")).exit, 0);
    EXPECT_LT(statusOf(sparse).st_blocks, 1000);
}

/// Runs a shell command; true when it succeeds.
bool shell(const std::string& command) {
    return run(command).exit == 0;
}

TEST_F(FileIoTest, RestoredFilesKeepTheirFlags) {
    const auto flagsOf = [](const std::string& path) {
        return run("lsattr " + path).out.substr(0, 22);
    };
    if (!shell("chattr +dA " + duplicate)) GTEST_SKIP() << "needs flags";
    expectRefusal(EBADE);
    ASSERT_TRUE(shell("chattr +dA " + kept));
    EXPECT_EQ(link(kept, duplicate), 0);
    EXPECT_EQ(restore(duplicate), 0);
    EXPECT_NE(inodeOf(kept), inodeOf(duplicate));
    EXPECT_EQ(flagsOf(duplicate), flagsOf(kept));
}

TEST_F(FileIoTest, RestoredFilesTakeNothingOfTheReserve) {
    if (geteuid() != 0) GTEST_SKIP() << "needs root";
    const std::string image = sandbox.path("image");
    const std::string disk = sandbox.path("disk");
    if (!shell("truncate -s 32M " + image + " && mkfs.ext4 -q -m 30 " + image + " && mkdir " +
               disk + " && mount -o loop " + image + " " + disk))
        GTEST_SKIP() << "needs mkfs.ext4 and loop devices";
    const std::string a = disk + "/a";
    const std::string b = disk + "/b";
    writeFile(a, std::string(4 << 20, 'x'));
    writeFile(b, std::string(4 << 20, 'x'));
    EXPECT_EQ(link(a, b), 0);
    writeFile(disk + "/c", std::string(10 << 20, 'y'));  // the rest is less than the reserve
    EXPECT_EQ(restore(b), ENOSPC);
    fs::remove(disk + "/c");
    EXPECT_EQ(restore(b), 0);
    EXPECT_TRUE(shell("umount " + disk));
}

TEST_F(FileIoTest, RestoresEveryMemberOfALargeGroup) {
    ASSERT_EQ(truncate(kept.c_str(), 1000), 0);
    std::vector<std::string> members = {kept};
    for (int i = 0; i < 2000; ++i) {
        members.push_back(sandbox.path("l" + std::to_string(i)));
        fs::create_hard_link(kept, members.back());
    }
    for (const std::string& member : members) {
        for (int time = 0; time < 2; ++time) EXPECT_EQ(restoreLinkFile(member.c_str(), false), 0);
    }
    EXPECT_TRUE(settleLinks().empty());
    for (const std::string& member : members) {
        EXPECT_EQ(statusOf(member).st_nlink, 1U);
        EXPECT_EQ(statusOf(member).st_size, 1000);
    }
}

TEST_F(FileIoTest, RefusesToRestoreWhatIsNoLinkedFile) {
    EXPECT_EQ(restore(sandbox.path("missing")), ENOENT);
    EXPECT_EQ(restore(""), ENOENT);
    EXPECT_EQ(restore(sandbox.tree()), EINVAL);
    EXPECT_EQ(restore(kept + "/"), EINVAL);
    fs::create_symlink("kept", sandbox.path("alias"));
    EXPECT_EQ(restore(sandbox.path("alias")), ELOOP);
    fs::create_hard_link(kept, sandbox.path("linked"));
    const int writer = open(kept.c_str(), O_RDWR | O_CLOEXEC);
    EXPECT_EQ(restore(sandbox.path("linked")), EBUSY);
    close(writer);
    EXPECT_EQ(namesIn(sandbox.tree()),
              (std::vector<std::string>{"alias", "duplicate", "kept", "linked"}));
}

TEST_F(FileIoTest, RefusesOverlaysAndWhatTheyAreMadeOf) {
    for (const char* name : {"lower", "work", "merged"}) fs::create_directory(sandbox.path(name));
    const std::string first = sandbox.write("upper one/a", "same");
    const std::string second = sandbox.write("upper one/b", "same");
    EXPECT_EQ(link(first, second), 0);
    const std::string options = "lowerdir=" + sandbox.path("lower") +
                                ",upperdir=" + sandbox.path("upper one") +
                                ",workdir=" + sandbox.path("work");
    const std::string merged = sandbox.path("merged");
    if (mount("none", merged.c_str(), "overlay", 0, options.c_str()) != 0)
        GTEST_SKIP() << "needs root and overlays";
    std::this_thread::sleep_for(std::chrono::milliseconds(200));  // then new mounts are known
    EXPECT_EQ(restore(second), EOPNOTSUPP);
    EXPECT_EQ(link(merged + "/a", merged + "/b"), EOPNOTSUPP);
    EXPECT_EQ(umount2(merged.c_str(), MNT_DETACH), 0);
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
    EXPECT_EQ(restore(second), 0);
}

TEST_F(FileIoTest, RefusesLinksThatTheFileSystemDoesNotTake) {
    const std::string mounted = sandbox.path("mounted");
    fs::create_directories(mounted);
    fs::create_directories(sandbox.path("inside"));
    fs::rename(duplicate, sandbox.path("inside/duplicate"));
    if (mount(sandbox.path("inside").c_str(), mounted.c_str(), nullptr, MS_BIND, nullptr) == 0) {
        // The same device, and still another mount.
        EXPECT_EQ(link(kept, mounted + "/duplicate"), EXDEV);
        umount2(mounted.c_str(), MNT_DETACH);
    }
    fs::rename(sandbox.path("inside/duplicate"), duplicate);
    int links = 1;
    while (links < 70000 &&
           ::link(kept.c_str(), sandbox.path("l" + std::to_string(links)).c_str()) == 0) {
        ++links;
    }
    if (links < 70000) {
        EXPECT_EQ(link(kept, duplicate), EMLINK);
    }
}

}  // namespace
}  // namespace rux::test
