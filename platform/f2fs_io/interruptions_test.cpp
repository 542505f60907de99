// Calls that are killed, that fail half-way, and that others come between.

#include <dlfcn.h>
#include <fcntl.h>
#include <unistd.h>

#include <atomic>
#include <functional>
#include <thread>
#include <utility>

#include "tests/support/file_io.h"

void removeLeftovers(const char* directory);

namespace {

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
int syncfs(int file) noexcept {
    return faults.fails() ? -1 : realOf("syncfs", &syncfs)(file);
}
}

namespace rux::test {
namespace {

TEST_F(FileIoTest, CleansUpAfterAKilledCall) {
    const auto digest = run("printf duplicate | md5sum").out.substr(0, 32);
    const std::string swap = sandbox.path(".rux-swap-" + digest);
    const std::vector<std::string> clean = {"duplicate", "kept"};
    // Killed before the exchange: the name stands for the kept file.
    fs::create_hard_link(kept, swap);
    EXPECT_EQ(link(kept, duplicate), 0);
    EXPECT_EQ(namesIn(sandbox.tree()), clean);
    EXPECT_EQ(statusOf(kept).st_nlink, 2U);
    // Killed after it: the name stands for the old file, or for the shared one after a restore.
    for (const bool byScan : {false, true}) {
        writeFile(swap, readFile(kept));
        if (byScan) {
            removeLeftovers(sandbox.tree().c_str());
        } else {
            EXPECT_EQ(link(kept, duplicate), 0);
        }
        EXPECT_EQ(namesIn(sandbox.tree()), clean);
    }
    EXPECT_EQ(restore(duplicate), 0);
    fs::create_hard_link(kept, swap);
    EXPECT_EQ(restore(duplicate), 0);
    EXPECT_EQ(namesIn(sandbox.tree()), clean);
    // Somebody has had the old file open all the while, and may still write to it.
    writeFile(swap, readFile(kept));
    const int writer = open(swap.c_str(), O_WRONLY | O_CLOEXEC);
    EXPECT_EQ(link(kept, duplicate), EEXIST);
    close(writer);
    EXPECT_EQ(link(kept, duplicate), 0);
    EXPECT_EQ(restore(duplicate), 0);
    EXPECT_EQ(namesIn(sandbox.tree()), clean);
    // Somebody wrote to the old file while the call was killed: that content has no other name.
    writeFile(swap, "written meanwhile");
    EXPECT_EQ(link(kept, duplicate), EEXIST);
    EXPECT_EQ(restore(duplicate), EEXIST);
    removeLeftovers(sandbox.tree().c_str());
    EXPECT_EQ(readFile(swap), "written meanwhile");
    EXPECT_EQ(readFile(duplicate), std::string(300000, 'k'));
    // Somebody else has made a file of that name, in a directory where that cannot be denied.
    if (chown(swap.c_str(), 12345, 12345) != 0) return;
    EXPECT_EQ(restore(duplicate), 0);
    EXPECT_EQ(link(kept, duplicate), 0);
    EXPECT_EQ(restore(duplicate), 0);
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
        std::thread call([&] { code = link(kept, duplicate); });
        // Once a lease is there, an impatient writer is told so.
        ASSERT_TRUE(waitFor([&path] {
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
    EXPECT_EQ(link(kept, duplicate), 0);
}

TEST_F(FileIoTest, NoFaultTakesTheNameFromAWriter) {
    // Each call fails in its turn, while a program waits to write to one of the files.
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
                const int code = isLink ? link(kept, duplicate) : restore(duplicate);
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
        linked += link(kept, duplicate) == 0 ? 1 : 0;
        restore(duplicate);
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
        const std::jthread swap([&](const std::stop_token& isOver) {
            while (!isOver.stop_requested())
                renameat2(AT_FDCWD, x.c_str(), AT_FDCWD, y.c_str(), RENAME_EXCHANGE);
        });
        for (int round = 0; round < 2000; ++round) {
            link(kept, same);
            restore(same);
        }
    }
    std::string contents[] = {readFile(same), readFile(other)};
    std::sort(std::begin(contents), std::end(contents));
    EXPECT_EQ(contents[0], std::string(300000, 'k'));
    EXPECT_EQ(contents[1], "something else");
    EXPECT_EQ(namesIn(x), std::vector<std::string>{"file"});
    EXPECT_EQ(namesIn(y), std::vector<std::string>{"file"});
}

}  // namespace
}  // namespace rux::test
