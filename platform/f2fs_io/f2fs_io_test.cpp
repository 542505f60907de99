#include <dlfcn.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/mount.h>
#include <sys/wait.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <csignal>
#include <filesystem>
#include <functional>
#include <random>
#include <thread>
#include <utility>

#include "tavo_f2fs_io.h"
#include "tests/support/sandbox.h"

void removeLeftovers(const char* directory);

namespace {

namespace fs = std::filesystem;
using rux::test::inodeOf;
using rux::test::md5sum;
using rux::test::readFile;
using rux::test::statusOf;
using rux::test::writeFile;

/// The names in a directory, sorted.
std::vector<std::string> namesIn(const std::string& directory) {
    std::vector<std::string> names;
    for (const auto& entry : fs::directory_iterator(directory))
        names.push_back(entry.path().filename());
    std::sort(names.begin(), names.end());
    return names;
}

/// Which of the library's calls by name fails.
struct Faults {
    int failing = -1;
    int error = 0;
    std::function<void()> atExchange;  // the first one
    int calls = 0;

    bool fails() {
        errno = error;
        return failing >= 0 && calls++ == failing;
    }
} faults;

template <typename Function>
Function* realOf(const char* name, Function* /*of this type*/) {
    return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name));
}

}  // namespace

// In place of the C library's.
extern "C" {
int renameat2(int from, const char* old, int to, const char* name, unsigned flags) noexcept {
    if (flags == RENAME_EXCHANGE && faults.atExchange) std::exchange(faults.atExchange, nullptr)();
    return faults.fails() ? -1 : realOf("renameat2", &renameat2)(from, old, to, name, flags);
}
int unlinkat(int directory, const char* name, int flags) noexcept {
    return faults.fails() ? -1 : realOf("unlinkat", &unlinkat)(directory, name, flags);
}
int linkat(int from, const char* old, int to, const char* name, int flags) noexcept {
    return faults.fails() ? -1 : realOf("linkat", &linkat)(from, old, to, name, flags);
}
int fstatat(int directory, const char* name, struct stat* status, int flags) noexcept {
    return faults.fails() ? -1 : realOf("fstatat", &fstatat)(directory, name, status, flags);
}
int fstat(int file, struct stat* status) noexcept {
    return faults.fails() ? -1 : realOf("fstat", &fstat)(file, status);
}
int fsync(int file) {
    return faults.fails() ? -1 : realOf("fsync", &fsync)(file);
}
}

namespace {

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
    EXPECT_EQ(createHardLink(kept.c_str(), duplicate.c_str(), false), 0);
}

TEST_F(FileIoTest, FindsADifferenceWhereverItIs) {
    // In files so large that two threads compare them, and for several callers at once.
    std::string content((3 << 20) + 777, '\0');
    std::mt19937 random{1};
    for (char& byte : content) byte = static_cast<char>(random());
    std::vector<size_t> places = {content.size() - 1};
    for (size_t at = 0; at < content.size(); at += content.size() / 30) places.push_back(at);
    const auto link = [&](const std::string& directory) {
        const std::string first = sandbox.write(directory + "/first", content);
        const std::string second = sandbox.path(directory + "/second");
        for (const size_t at : places) {
            std::string other = content;
            other[at] ^= 1;
            writeFile(second, other);
            EXPECT_EQ(createHardLink(first.c_str(), second.c_str(), false), EILSEQ) << at;
        }
        writeFile(second, content);
        EXPECT_EQ(createHardLink(first.c_str(), second.c_str(), false), 0);
        EXPECT_EQ(inodeOf(first), inodeOf(second));
    };
    std::vector<std::thread> callers;
    for (const char* directory : {"a", "b", "c"}) callers.emplace_back(link, directory);
    for (std::thread& caller : callers) caller.join();
}

TEST_F(FileIoTest, RefusesToLinkWhatIsNoFileOfItsOwn) {
    const auto link = [](const std::string& from, const std::string& to) {
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

TEST_F(FileIoTest, LinksOfOthersLeadToNobodysFiles) {
    if (geteuid() != 0) GTEST_SKIP() << "needs root";
    constexpr uid_t kOwner = 12345;
    constexpr uid_t kOther = 12346;
    const auto link = [](const std::string& from, const std::string& to) {
        return createHardLink(from.c_str(), to.c_str(), false);
    };
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
        EXPECT_EQ(restoreLinkFile((others + "/2").c_str(), false), ELOOP);
        EXPECT_EQ(statusOf(home + "/1").st_nlink, 2U);
        EXPECT_EQ(restoreLinkFile((way + "/2").c_str(), false), 0) << way;
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
    EXPECT_EQ(restoreLinkFile(sparse.c_str(), false), 0);
    const struct stat restored = statusOf(sparse);
    EXPECT_EQ(restored.st_nlink, 1U);
    EXPECT_EQ(restored.st_atim.tv_sec, times[0].tv_sec);
    EXPECT_EQ(restored.st_atim.tv_nsec, times[0].tv_nsec);
    EXPECT_EQ(restored.st_mtim.tv_nsec, times[1].tv_nsec);
    EXPECT_EQ(rux::test::run({"cmp", sparse, sandbox.path("other")}).exit, 0);
    EXPECT_LT(statusOf(sparse).st_blocks, 1000);
}

/// Runs a shell command; true when it succeeds.
bool shell(const std::string& command) {
    return rux::test::run({"sh", "-c", command}).exit == 0;
}

TEST_F(FileIoTest, RestoredFilesKeepTheirFlags) {
    const auto flagsOf = [](const std::string& path) {
        return rux::test::run({"lsattr", path}).out.substr(0, 22);
    };
    if (!shell("chattr +dA " + duplicate)) GTEST_SKIP() << "needs flags";
    expectRefusal(EBADE);
    ASSERT_TRUE(shell("chattr +dA " + kept));
    EXPECT_EQ(createHardLink(kept.c_str(), duplicate.c_str(), false), 0);
    EXPECT_EQ(restoreLinkFile(duplicate.c_str(), false), 0);
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
    EXPECT_EQ(createHardLink(a.c_str(), b.c_str(), false), 0);
    writeFile(disk + "/c", std::string(10 << 20, 'y'));  // the rest is less than the reserve
    EXPECT_EQ(restoreLinkFile(b.c_str(), false), ENOSPC);
    fs::remove(disk + "/c");
    EXPECT_EQ(restoreLinkFile(b.c_str(), false), 0);
    EXPECT_TRUE(shell("umount " + disk));
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

TEST_F(FileIoTest, CleansUpAfterAKilledCall) {
    const auto digest = rux::test::run({"md5sum"}, "", "duplicate").out.substr(0, 32);
    const std::string swap = sandbox.path(".rux-swap-" + digest);
    const std::vector<std::string> clean = {"duplicate", "kept"};
    // Killed before the exchange: the name stands for the kept file.
    fs::create_hard_link(kept, swap);
    EXPECT_EQ(createHardLink(kept.c_str(), duplicate.c_str(), false), 0);
    EXPECT_EQ(namesIn(sandbox.tree()), clean);
    EXPECT_EQ(statusOf(kept).st_nlink, 2U);
    // Killed after it: the name stands for the old file, or for the shared one after a restore.
    for (const bool byScan : {false, true}) {
        rux::test::writeFile(swap, readFile(kept));
        if (byScan) {
            removeLeftovers(sandbox.tree().c_str());
        } else {
            EXPECT_EQ(createHardLink(kept.c_str(), duplicate.c_str(), false), 0);
        }
        EXPECT_EQ(namesIn(sandbox.tree()), clean);
    }
    EXPECT_EQ(restoreLinkFile(duplicate.c_str(), false), 0);
    fs::create_hard_link(kept, swap);
    EXPECT_EQ(restoreLinkFile(duplicate.c_str(), false), 0);
    EXPECT_EQ(namesIn(sandbox.tree()), clean);
    // Somebody has had the old file open all the while, and may still write to it.
    rux::test::writeFile(swap, readFile(kept));
    const int writer = open(swap.c_str(), O_WRONLY | O_CLOEXEC);
    EXPECT_EQ(createHardLink(kept.c_str(), duplicate.c_str(), false), EEXIST);
    close(writer);
    EXPECT_EQ(createHardLink(kept.c_str(), duplicate.c_str(), false), 0);
    EXPECT_EQ(restoreLinkFile(duplicate.c_str(), false), 0);
    EXPECT_EQ(namesIn(sandbox.tree()), clean);
    // Another service is in the middle of a call on it, as its lease tells.
    rux::test::writeFile(swap, readFile(kept));
    int ready[2];
    ASSERT_EQ(pipe2(ready, O_CLOEXEC), 0);
    const pid_t other = fork();
    if (other == 0) {
        const int file = open(swap.c_str(), O_RDONLY | O_CLOEXEC);
        const char isLeased = fcntl(file, F_SETLEASE, F_RDLCK) == 0 ? 'y' : 'n';
        if (write(ready[1], &isLeased, 1) == 1) pause();
        _exit(0);
    }
    char isLeased = 0;
    EXPECT_EQ(read(ready[0], &isLeased, 1), 1);
    EXPECT_EQ(isLeased, 'y');
    EXPECT_EQ(createHardLink(kept.c_str(), duplicate.c_str(), false), EEXIST);
    kill(other, SIGKILL);
    waitpid(other, nullptr, 0);
    EXPECT_EQ(createHardLink(kept.c_str(), duplicate.c_str(), false), 0);
    EXPECT_EQ(restoreLinkFile(duplicate.c_str(), false), 0);
    // Somebody wrote to the old file while the call was killed: that content has no other name.
    rux::test::writeFile(swap, "written meanwhile");
    EXPECT_EQ(createHardLink(kept.c_str(), duplicate.c_str(), false), EEXIST);
    EXPECT_EQ(restoreLinkFile(duplicate.c_str(), false), EEXIST);
    removeLeftovers(sandbox.tree().c_str());
    EXPECT_EQ(readFile(swap), "written meanwhile");
    EXPECT_EQ(readFile(duplicate), std::string(300000, 'k'));
    // Somebody else has made a file of that name, in a directory where that cannot be denied.
    if (chown(swap.c_str(), 12345, 12345) != 0) return;
    EXPECT_EQ(restoreLinkFile(duplicate.c_str(), false), 0);
    EXPECT_EQ(createHardLink(kept.c_str(), duplicate.c_str(), false), 0);
    EXPECT_EQ(restoreLinkFile(duplicate.c_str(), false), 0);
    EXPECT_EQ(readFile(swap), "written meanwhile");
    EXPECT_EQ(namesIn(sandbox.tree()).size(), 3U);
}

TEST_F(FileIoTest, GivesWayToAWriterThatComesWhileBytesAreCompared) {
    // The writer waits in open until the call has given up its leases, and then finds its file.
    const off_t size = off_t{2} << 30;  // long to compare, and with some data everywhere
    for (const std::string& path : {kept, duplicate}) {
        const int file = open(path.c_str(), O_WRONLY | O_CLOEXEC);
        ASSERT_EQ(ftruncate(file, size), 0);
        for (off_t at = 0; at < size; at += 256 << 10) ASSERT_EQ(pwrite(file, "x", 1, at), 1);
        close(file);
    }
    for (const std::string& path : {kept, duplicate}) {
        int32_t code = -1;
        std::thread call([&] { code = createHardLink(kept.c_str(), duplicate.c_str(), false); });
        // Once a lease is there, an impatient writer is told so.
        ASSERT_TRUE(rux::test::waitFor([&path] {
            const int impatient = open(path.c_str(), O_WRONLY | O_NONBLOCK | O_CLOEXEC);
            if (impatient >= 0) close(impatient);
            return impatient < 0 && errno == EWOULDBLOCK;
        })) << "the comparison was over too soon";
        const int writer = open(path.c_str(), O_WRONLY | O_CLOEXEC);
        ASSERT_GE(writer, 0);
        call.join();
        EXPECT_EQ(code, EBUSY);
        struct stat st = {};
        ASSERT_EQ(fstat(writer, &st), 0);
        EXPECT_EQ(st.st_nlink, 1U);
        EXPECT_EQ(st.st_ino, inodeOf(path));
        close(writer);
    }
    for (const std::string& path : {kept, duplicate}) ASSERT_EQ(truncate(path.c_str(), 300000), 0);
    EXPECT_EQ(createHardLink(kept.c_str(), duplicate.c_str(), false), 0);
}

TEST_F(FileIoTest, NoFaultTakesTheNameFromAWriter) {
    // Each call fails in its turn, while a program waits to write to one of the files.
    const auto restore = [this] { return restoreLinkFile(duplicate.c_str(), false); };
    const auto link = [this] { return createHardLink(kept.c_str(), duplicate.c_str(), false); };
    for (const bool isLink : {true, false}) {
        for (const int error : {EIO, ENOSPC, ENOMEM}) {
            int failing = 0;
            for (bool isReached = true; isReached; ++failing) {
                fs::remove_all(sandbox.tree());
                SetUp();
                if (!isLink) {
                    fs::remove(duplicate);
                    fs::create_hard_link(kept, duplicate);
                }
                std::thread writer;
                int file = -1;
                faults = {.failing = failing, .error = error, .atExchange = [&] {
                              writer = std::thread([&] {
                                  file = open(duplicate.c_str(), O_WRONLY | O_CLOEXEC);
                              });
                              std::this_thread::sleep_for(std::chrono::milliseconds(20));
                          }};
                const int code = isLink ? link() : restore();
                isReached = faults.calls > failing;
                faults = {};
                if (code == 0) {
                    EXPECT_EQ(namesIn(sandbox.tree()).size(), 2U) << "what is kept is told";
                }
                if (!writer.joinable()) continue;  // it failed before
                writer.join();
                ASSERT_GE(file, 0);
                struct stat st = {};
                ASSERT_EQ(fstat(file, &st), 0);
                close(file);
                EXPECT_GT(st.st_nlink, 0U) << failing << " " << strerror(error) << " " << code;
                EXPECT_EQ(readFile(duplicate), std::string(300000, 'k'));
                EXPECT_EQ(readFile(kept), std::string(300000, 'k'));
            }
            EXPECT_GT(failing, 10);
        }
    }
}

TEST_F(FileIoTest, TheNewestOfFilesRenamedOverTheDuplicateStays) {
    // Files of the same content are renamed over both names while they are linked and restored.
    std::atomic<int> newest{0};
    std::atomic<bool> done{false};
    std::thread renamer([&] {
        for (int i = 1; !done; ++i) {
            const std::string content =
                    std::string(300000, 'k') + (i % 3 == 0 ? "" : std::to_string(i));
            const std::string fresh = sandbox.write("fresh", content);
            rename(fresh.c_str(), duplicate.c_str());
            newest = i % 3 == 0 ? 0 : i;
        }
    });
    int linked = 0;
    for (int round = 0; round < 2000 || (linked == 0 && round < 100000); ++round) {
        linked += createHardLink(kept.c_str(), duplicate.c_str(), false) == 0 ? 1 : 0;
        restoreLinkFile(duplicate.c_str(), false);
    }
    done = true;
    renamer.join();
    EXPECT_GT(linked, 0);
    EXPECT_EQ(readFile(duplicate),
              std::string(300000, 'k') + (newest == 0 ? "" : std::to_string(newest)));
    EXPECT_EQ(readFile(kept), std::string(300000, 'k'));
    EXPECT_EQ(namesIn(sandbox.tree()), (std::vector<std::string>{"duplicate", "kept"}));
}

TEST_F(FileIoTest, SwappedComponentsLeadNowhereElse) {
    const std::string same = sandbox.write("x/file", std::string(300000, 'k'));
    const std::string other = sandbox.write("y/file", "something else");
    const std::string x = sandbox.path("x");
    const std::string y = sandbox.path("y");
    {
        const rux::test::Hammer swap(
                [&] { renameat2(AT_FDCWD, x.c_str(), AT_FDCWD, y.c_str(), RENAME_EXCHANGE); });
        for (int round = 0; round < 2000; ++round) {
            createHardLink(kept.c_str(), same.c_str(), false);
            restoreLinkFile(same.c_str(), false);
        }
    }
    std::string contents[] = {readFile(same), readFile(other)};
    std::sort(std::begin(contents), std::end(contents));
    EXPECT_EQ(contents[0], std::string(300000, 'k'));
    EXPECT_EQ(contents[1], "something else");
    EXPECT_EQ(namesIn(x), std::vector<std::string>{"file"});
    EXPECT_EQ(namesIn(y), std::vector<std::string>{"file"});
}

TEST_F(FileIoTest, RefusesOverlaysAndWhatTheyAreMadeOf) {
    for (const char* name : {"lower", "work", "merged"}) fs::create_directory(sandbox.path(name));
    const std::string first = sandbox.write("upper one/a", "same");
    const std::string second = sandbox.write("upper one/b", "same");
    const auto link = [](const std::string& from, const std::string& to) {
        return createHardLink(from.c_str(), to.c_str(), false);
    };
    EXPECT_EQ(link(first, second), 0);
    const std::string options = "lowerdir=" + sandbox.path("lower") +
                                ",upperdir=" + sandbox.path("upper one") +
                                ",workdir=" + sandbox.path("work");
    const std::string merged = sandbox.path("merged");
    if (mount("none", merged.c_str(), "overlay", 0, options.c_str()) != 0)
        GTEST_SKIP() << "needs root and overlays";
    std::this_thread::sleep_for(std::chrono::milliseconds(200));  // then new mounts are known
    EXPECT_EQ(restoreLinkFile(second.c_str(), false), EOPNOTSUPP);
    EXPECT_EQ(link(merged + "/a", merged + "/b"), EOPNOTSUPP);
    EXPECT_EQ(umount2(merged.c_str(), MNT_DETACH), 0);
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
    EXPECT_EQ(restoreLinkFile(second.c_str(), false), 0);
}

TEST_F(FileIoTest, RefusesLinksThatTheFileSystemDoesNotTake) {
    const std::string mounted = sandbox.path("mounted");
    fs::create_directories(mounted);
    fs::create_directories(sandbox.path("inside"));
    fs::rename(duplicate, sandbox.path("inside/duplicate"));
    if (mount(sandbox.path("inside").c_str(), mounted.c_str(), nullptr, MS_BIND, nullptr) == 0) {
        // The same device, and still another mount.
        EXPECT_EQ(createHardLink(kept.c_str(), (mounted + "/duplicate").c_str(), false), EXDEV);
        umount2(mounted.c_str(), MNT_DETACH);
    }
    fs::rename(sandbox.path("inside/duplicate"), duplicate);
    int links = 1;
    while (links < 70000 &&
           link(kept.c_str(), sandbox.path("l" + std::to_string(links)).c_str()) == 0) {
        ++links;
    }
    if (links < 70000) {
        EXPECT_EQ(createHardLink(kept.c_str(), duplicate.c_str(), false), EMLINK);
    }
}

}  // namespace
