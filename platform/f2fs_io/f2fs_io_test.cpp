#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <filesystem>
#include <thread>

#include "tavo_f2fs_io.h"
#include "tests/support/sandbox.h"

namespace {

namespace fs = std::filesystem;
using rux::test::inodeOf;
using rux::test::md5sum;
using rux::test::readFile;
using rux::test::statusOf;

/// The names in a directory, sorted.
std::vector<std::string> namesIn(const std::string& directory) {
    std::vector<std::string> names;
    for (const auto& entry : fs::directory_iterator(directory))
        names.push_back(entry.path().filename());
    std::sort(names.begin(), names.end());
    return names;
}

class FileIoTest : public testing::Test {
  protected:
    void SetUp() override {
        kept = sandbox.write("kept", std::string(300000, 'k'));
        duplicate = sandbox.write("duplicate", std::string(300000, 'k'));
    }
    /// Links the two and expects that it is refused, with nothing changed and nothing left behind.
    void expectRefusal(int code) const {
        const std::vector<std::string> names = namesIn(sandbox.tree());
        const ino_t inode = inodeOf(duplicate);
        EXPECT_EQ(createHardLink(kept.c_str(), duplicate.c_str(), false), code) << strerror(code);
        EXPECT_EQ(inodeOf(duplicate), inode);
        EXPECT_EQ(namesIn(sandbox.tree()), names);
    }

    rux::test::Sandbox sandbox;
    std::string kept;
    std::string duplicate;
};

TEST_F(FileIoTest, DigestsEqualMd5sums) {
    // Around the block sizes of the digest and of the reads.
    for (const size_t size :
         {0U, 1U, 55U, 56U, 63U, 64U, 65U, 262143U, 262144U, 262145U, 3000001U}) {
        std::string content(size, '\0');
        for (size_t i = 0; i < size; ++i) content[i] = static_cast<char>(i * 131 + i / 251);
        const std::string path = sandbox.write("digest", content);
        const FileMD5Result result = computeFileMD5(path.c_str(), false);
        EXPECT_EQ(result.code, 0);
        EXPECT_EQ(std::string(result.md5), md5sum(path)) << size;
    }
    fs::create_symlink("kept", sandbox.path("link"));
    EXPECT_EQ(std::string(computeFileMD5(sandbox.path("link").c_str(), false).md5), md5sum(kept));
    mkfifo(sandbox.path("pipe").c_str(), 0600);
    EXPECT_EQ(computeFileMD5(sandbox.path("pipe").c_str(), false).code, EINVAL);
    EXPECT_EQ(computeFileMD5(sandbox.tree().c_str(), false).code, EINVAL);
    EXPECT_EQ(computeFileMD5("/proc/self/maps", false).code, EINVAL);
    EXPECT_EQ(computeFileMD5(sandbox.path("missing").c_str(), false).code, ENOENT);
    EXPECT_STREQ(computeFileMD5("", false).md5, "");
}

TEST_F(FileIoTest, DigestsAreComputedByManyThreadsAtOnce) {
    const std::string expected = md5sum(kept);
    std::vector<std::thread> threads;
    for (int i = 0; i < 8; ++i) {
        threads.emplace_back([&] {
            for (int round = 0; round < 50; ++round) {
                EXPECT_EQ(std::string(computeFileMD5(kept.c_str(), false).md5), expected);
            }
        });
    }
    for (std::thread& thread : threads) thread.join();
}

TEST_F(FileIoTest, LinksEqualFiles) {
    EXPECT_EQ(createHardLink(kept.c_str(), duplicate.c_str(), false), 0);
    EXPECT_EQ(inodeOf(kept), inodeOf(duplicate));
    EXPECT_EQ(createHardLink(kept.c_str(), duplicate.c_str(), false), 0) << "one file already";
    // The kept file may be reached through a link, the directory of the duplicate too.
    fs::create_symlink("kept", sandbox.path("alias"));
    fs::create_symlink(".", sandbox.path("here"));
    sandbox.write("third", std::string(300000, 'k'));
    EXPECT_EQ(createHardLink(sandbox.path("alias").c_str(), sandbox.path("here/third").c_str(),
                             false),
              0);
    EXPECT_EQ(inodeOf(kept), inodeOf(sandbox.path("third")));
    EXPECT_EQ(statusOf(kept).st_nlink, 3U);
    EXPECT_EQ(namesIn(sandbox.tree()),
              (std::vector<std::string>{"alias", "duplicate", "here", "kept", "third"}));
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
    EXPECT_EQ(createHardLink(kept.c_str(), duplicate.c_str(), false), 0);
}

TEST_F(FileIoTest, RefusesToLinkWhatIsNoFileOfItsOwn) {
    const auto link = [this](const std::string& from, const std::string& to) {
        return createHardLink(from.c_str(), to.c_str(), false);
    };
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
        rux::test::writeFile(other, readFile(kept));
        EXPECT_EQ(link(kept, other), EXDEV);
        fs::remove(other);
    }
}

TEST_F(FileIoTest, RefusesToLinkFilesThatAreBeingWritten) {
    for (const std::string& path : {kept, duplicate}) {
        const int writer = open(path.c_str(), O_RDWR | O_CLOEXEC);
        ASSERT_GE(writer, 0);
        expectRefusal(EBUSY);
        close(writer);
    }
    EXPECT_EQ(createHardLink(kept.c_str(), duplicate.c_str(), false), 0);
}

TEST_F(FileIoTest, RestoredFilesAreLikeBeforeInAllButTheirData) {
    ASSERT_EQ(createHardLink(kept.c_str(), duplicate.c_str(), false), 0);
    ASSERT_EQ(chmod(kept.c_str(), 0741), 0);
    const bool label = setxattr(kept.c_str(), "user.label", "value", 5, 0) == 0;
    const timespec times[] = {{1234567890, 1}, {1234567891, 999999999}};
    ASSERT_EQ(utimensat(AT_FDCWD, kept.c_str(), times, 0), 0);
    if (geteuid() == 0) {
        ASSERT_EQ(chown(kept.c_str(), 4321, 1234), 0);
    }
    const struct stat before = statusOf(kept);

    EXPECT_EQ(restoreLinkFile(duplicate.c_str(), false), 0);
    const struct stat after = statusOf(duplicate);
    EXPECT_NE(after.st_ino, before.st_ino);
    EXPECT_EQ(after.st_nlink, 1U);
    EXPECT_EQ(after.st_mode, before.st_mode);
    EXPECT_EQ(after.st_uid, before.st_uid);
    EXPECT_EQ(after.st_gid, before.st_gid);
    EXPECT_EQ(after.st_mtim.tv_sec, times[1].tv_sec);
    EXPECT_EQ(after.st_mtim.tv_nsec, times[1].tv_nsec);
    EXPECT_EQ(after.st_atim.tv_sec, times[0].tv_sec);
    EXPECT_EQ(after.st_atim.tv_nsec, times[0].tv_nsec);
    char value[8] = {};
    if (label) {
        EXPECT_EQ(getxattr(duplicate.c_str(), "user.label", value, sizeof(value)), 5);
    }
    EXPECT_EQ(rux::test::run({"cmp", kept, duplicate}).exit, 0);
    EXPECT_EQ(inodeOf(kept), before.st_ino);
    EXPECT_EQ(restoreLinkFile(kept.c_str(), false), 0) << "the last link stays where it is";
    EXPECT_EQ(inodeOf(kept), before.st_ino);
    EXPECT_EQ(namesIn(sandbox.tree()), (std::vector<std::string>{"duplicate", "kept"}));
}

TEST_F(FileIoTest, RestoredFilesKeepTheirHoles) {
    const std::string sparse = sandbox.write("sparse", "start");
    ASSERT_EQ(truncate(sparse.c_str(), 50 << 20), 0);
    const int file = open(sparse.c_str(), O_WRONLY | O_CLOEXEC);
    ASSERT_EQ(pwrite(file, "middle", 6, 20 << 20), 6);
    close(file);
    fs::create_hard_link(sparse, sandbox.path("other"));
    EXPECT_EQ(restoreLinkFile(sparse.c_str(), false), 0);
    EXPECT_EQ(rux::test::run({"cmp", sparse, sandbox.path("other")}).exit, 0);
    EXPECT_LT(statusOf(sparse).st_blocks, 1000);
}

TEST_F(FileIoTest, RefusesToRestoreWhatIsNoLinkedFile) {
    EXPECT_EQ(restoreLinkFile(sandbox.path("missing").c_str(), false), ENOENT);
    EXPECT_EQ(restoreLinkFile("", false), ENOENT);
    EXPECT_EQ(restoreLinkFile(sandbox.tree().c_str(), false), EINVAL);
    EXPECT_EQ(restoreLinkFile((kept + "/").c_str(), false), EINVAL);
    fs::create_symlink("kept", sandbox.path("alias"));
    EXPECT_EQ(restoreLinkFile(sandbox.path("alias").c_str(), false), ELOOP);
    fs::create_hard_link(kept, sandbox.path("linked"));
    const int writer = open(kept.c_str(), O_RDWR | O_CLOEXEC);
    EXPECT_EQ(restoreLinkFile(sandbox.path("linked").c_str(), false), EBUSY);
    close(writer);
    EXPECT_EQ(namesIn(sandbox.tree()),
              (std::vector<std::string>{"alias", "duplicate", "kept", "linked"}));
}

}  // namespace
