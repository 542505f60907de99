#include "f2fs_io/digest/lanes.h"

#include <gtest/gtest.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <map>
#include <random>

#include "f2fs_io/digest/md5.h"
#include "tests/support/sandbox.h"

namespace {

namespace fs = std::filesystem;

ino_t brokenInode = 0;         // the file whose reading fails
constexpr int kGoodReads = 2;  // before it does

}  // namespace

/// In the place of the C library's for this whole program: a disk that fails in the middle of a
/// file.
extern "C" ssize_t read(int file, void* bytes, size_t size) {
    static thread_local int reads = 0;
    struct stat st = {};
    if (brokenInode != 0 && fstat(file, &st) == 0 && st.st_ino == brokenInode &&
        ++reads > kGoodReads) {
        errno = EIO;
        return -1;
    }
    return syscall(SYS_read, file, bytes, size);
}

namespace android::host {
namespace {

/// Gives a batch its files and collects what comes of them.
class Files {
  public:
    explicit Files(std::vector<std::string> paths) : mPaths(std::move(paths)) {}

    void digest(const Md5Kernels& kernels) {
        const auto next = [this](void** file) {
            if (mNext == mPaths.size()) return static_cast<const char*>(nullptr);
            *file = &mPaths[mNext];
            return mPaths[mNext++].c_str();
        };
        const auto opened = [](void* file, const struct stat& status) {
            const std::string& path = *static_cast<std::string*>(file);
            EXPECT_EQ(status.st_ino, rux::test::statusOf(path).st_ino);
            return true;
        };
        const auto done = [this](void* file, const FileMD5Result& result) {
            const std::string& path = *static_cast<std::string*>(file);
            EXPECT_TRUE(results.emplace(path, result).second) << "done twice";
            order.push_back(path);
        };
        digestInLanes(kernels, {kMaxMd5Lanes, next, opened, done,
                                [this] { return onTurn(mTurns++); }, false});
    }

    std::map<std::string, FileMD5Result> results;
    std::vector<std::string> order;  // in which they were done
    std::function<bool(int)> onTurn = [](int /*turn*/) { return false; };

  private:
    std::vector<std::string> mPaths;
    size_t mNext = 0;
    int mTurns = 0;
};

/// Every kernel that this machine can run.
std::vector<const Md5Kernels*> allKernels() {
    std::vector<const Md5Kernels*> all = {&kMd5Kernels128};
#if defined(__x86_64__)
    if (__builtin_cpu_supports("avx2")) all.push_back(&kMd5Kernels256);
    if (__builtin_cpu_supports("avx512f")) all.push_back(&kMd5Kernels512);
#endif
    return all;
}

class LanesTest : public testing::TestWithParam<const Md5Kernels*> {
  protected:
    void TearDown() override { brokenInode = 0; }

    std::string write(const std::string& name, size_t size) {
        std::string content(size, '\0');
        for (char& byte : content) byte = static_cast<char>(random());
        expected[sandbox.path(name)] = md5OfText(content);
        return sandbox.write(name, content);
    }

    rux::test::Sandbox sandbox;
    std::mt19937 random{20261124};
    std::map<std::string, std::string> expected;  // digests by path
};

TEST_P(LanesTest, DigestsFilesOfAllLengths) {
    std::vector<std::string> paths;
    for (size_t size = 0; size <= 300; ++size) paths.push_back(write(std::to_string(size), size));
    for (const size_t size : {131071U, 131072U, 131073U, 131127U, 131128U, 262144U})
        paths.push_back(write(std::to_string(size), size));
    for (int i = 0; i < 40; ++i)
        paths.push_back(
                write("random" + std::to_string(i), random() % (i % 4 == 0 ? 4U << 20 : 9000)));
    std::shuffle(paths.begin(), paths.end(), random);
    Files files(paths);
    files.digest(*GetParam());
    ASSERT_EQ(files.results.size(), paths.size());
    for (const auto& [path, result] : files.results) {
        EXPECT_EQ(result.code, 0) << path;
        EXPECT_EQ(result.md5, expected[path]) << path;
        EXPECT_EQ(computeFileMD5(path.c_str(), false).md5, expected[path]) << path;
    }
}

TEST_P(LanesTest, LongFilesAreNotHeldUpByShortOnes) {
    std::vector<std::string> paths = {write("long", 9 << 20), write("longer", (10 << 20) + 77)};
    for (size_t i = 0; i < 2000; ++i) paths.push_back(write(std::to_string(i), 1 + i % 500));
    Files files(paths);
    files.digest(*GetParam());
    for (const std::string& path : paths) ASSERT_EQ(files.results[path].md5, expected[path]);
    for (const std::string& path : {paths[0], paths[1]}) {
        EXPECT_NE(std::find(files.order.begin(), files.order.end() - 100, path),
                  files.order.end() - 100)
                << path;
    }
}

TEST_P(LanesTest, GivesAnErrorToTheFileThatHasItAlone) {
    constexpr size_t kLong = 1 << 20;
    const std::string shrinks = write("shrinks", kLong);
    const std::string grows = write("grows", kLong);
    const std::string changes = write("changes", kLong);
    const std::string breaks = write("breaks", kLong);
    const std::string replaced = write("replaced", kLong);
    std::vector<std::string> paths = {shrinks,          grows,    changes,
                                      breaks,           replaced, sandbox.path("missing"),
                                      sandbox.path(".")};
    paths.reserve(64);
    for (size_t i = 0; i < 40; ++i) paths.push_back(write("good" + std::to_string(i), 3000 * i));
    ASSERT_EQ(mkfifo(sandbox.path("pipe").c_str(), 0600), 0);
    paths.push_back(sandbox.path("pipe"));
    brokenInode = rux::test::statusOf(breaks).st_ino;
    Files files(paths);
    files.onTurn = [&](int turn) {
        if (turn != 2)
            return false;  // all are open by then, and none of the long ones is at its end
        fs::resize_file(shrinks, 5);
        fs::resize_file(grows, kLong * 2);
        const std::string other = sandbox.write("other", "other");
        fs::rename(other, replaced);
        sandbox.write("changes", std::string(kLong, 'x'));
        return false;
    };
    files.digest(*GetParam());
    ASSERT_EQ(files.results.size(), paths.size());
    for (const std::string& path : {shrinks, grows, changes})
        EXPECT_EQ(files.results[path].code, EAGAIN) << path;
    EXPECT_EQ(files.results[breaks].code, EIO);
    for (const auto& [name, code] :
         {std::pair("missing", ENOENT), {"pipe", EINVAL}, {".", EINVAL}}) {
        EXPECT_EQ(files.results[sandbox.path(name)].code, code) << name;
        EXPECT_EQ(computeFileMD5(sandbox.path(name).c_str(), false).code, code) << name;
    }
    EXPECT_STREQ(files.results[breaks].md5, "");
    EXPECT_EQ(files.results[replaced].md5, expected[replaced]);  // the file that was opened
    for (int i = 0; i < 40; ++i) {
        const std::string good = sandbox.path("good" + std::to_string(i));
        EXPECT_EQ(files.results[good].md5, expected[good]) << good;
    }
}

TEST_P(LanesTest, AbandonsWhatIsInHand) {
    std::vector<std::string> paths;
    paths.reserve(5);
    for (int i = 0; i < 5; ++i) paths.push_back(write(std::to_string(i), 1 << 20));
    Files files(paths);
    files.onTurn = [](int turn) { return turn == 2; };
    files.digest(*GetParam());
    ASSERT_EQ(files.results.size(), 5U);
    for (const auto& [path, result] : files.results) EXPECT_EQ(result.code, ECANCELED);
}

INSTANTIATE_TEST_SUITE_P(AllKernels, LanesTest, testing::ValuesIn(allKernels()),
                         [](const testing::TestParamInfo<const Md5Kernels*>& info) {
                             return "Lanes" + std::to_string(info.param->maxLanes());
                         });

}  // namespace
}  // namespace android::host
