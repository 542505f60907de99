// A scan that works ahead and one that does not must be the same for everybody who watches: the
// same polls and log lines in the same order, and the same database files.
//
// This program supplies the platform's property, log and digest calls itself. Built once with the
// digests of many files at once and once without.

#include "scan/look_ahead.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstring>
#include <filesystem>
#include <map>
#include <mutex>
#include <random>
#include <set>
#include <thread>
#include <utility>

#include "android-base/properties.h"
#include "android/log.h"
#include "control/properties.h"
#include "f2fs_io/digest/lanes.h"
#include "f2fs_io/digest/md5.h"
#include "scan/scan_request.h"
#include "tavo_f2fs_io.h"
#include "tests/support/sandbox.h"

namespace {

namespace fs = std::filesystem;
using rux::test::Json;
using rux::test::readFile;

/// What the scan under way may be seen to do, and how the world answers.
struct World {
    std::vector<std::string> events;  // polls and log lines
    std::set<size_t> stops;           // the polls that read "true"
    size_t polls = 0;
    std::thread::id scanThread;
    std::mutex mutex;
    std::vector<ino_t> readings;  // of files, by the digest calls

    void note(const std::string& event) {
        EXPECT_EQ(std::this_thread::get_id(), scanThread) << event;
        events.push_back(event);
    }
};
World* world = nullptr;

std::string formatted(const char* fmt, va_list args) {
    char text[8192];
    // NOLINTNEXTLINE(clang-analyzer-valist.Uninitialized): the caller has started it
    vsnprintf(text, sizeof(text), fmt, args);
    return text;
}

std::set<ino_t> badFiles;  // their content cannot be read
ino_t slowFile = 0;        // its reading waits until the others come to nothing
size_t readMeanwhile = 0;  // files, the slow one included

/// Of the bad files, whether not even opening it succeeds.
[[maybe_unused]] bool cannotBeOpened(const char* path) {
    const ino_t inode = rux::test::inodeOf(path);
    return badFiles.count(inode) != 0 && inode % 2 == 0;
}

/// Whether the file is a bad one. Counts the attempt.
bool isBad(const char* path) {
    struct stat status = {};
    stat(path, &status);
    using namespace std::chrono_literals;
    const auto deadline = std::chrono::steady_clock::now() + 10s;
    std::unique_lock lock(world->mutex);
    world->readings.push_back(status.st_ino);
    if (status.st_ino == slowFile) {
        while ((readMeanwhile != world->readings.size() || readMeanwhile == 1) &&
               std::chrono::steady_clock::now() < deadline) {
            readMeanwhile = world->readings.size();
            lock.unlock();
            std::this_thread::sleep_for(300ms);
            lock.lock();
        }
    }
    return badFiles.count(status.st_ino) != 0;
}

}  // namespace

std::string android::base::GetProperty(const std::string& key, const std::string& fallback) {
    if (key != rux::kStopScan) return fallback;
    world->note("poll");
    return world->stops.count(world->polls++) != 0 ? "true" : "false";
}

bool android::base::SetProperty(const std::string& /*key*/, const std::string& /*value*/) {
    return true;
}

extern "C" int __android_log_print(int prio, const char* /*tag*/, const char* fmt, ...) {
    va_list args;
    va_start(args, fmt);
    const std::string text = formatted(fmt, args);
    va_end(args);
    world->note(std::to_string(prio) + " " + text);
    return 1;
}

FileMD5Result computeFileMD5(const char* path, bool /*enableLog*/) {
    FileMD5Result result = {};
    std::string digest;
    android::host::DigestSource source;
    result.code = isBad(path) ? EIO : source.open(path);
    if (result.code == 0) result.code = android::host::md5Of(source, &digest);
    strncpy(result.md5, digest.c_str(), sizeof(result.md5) - 1);
    return result;
}

#if RUX_TEST_BATCH
namespace {

/// Stands between the scan and the real batch.
struct BatchSpy {
    android::host::BatchCaller caller;
    std::map<uint64_t, const char*> inHand;
    static BatchSpy& of(void* self) { return *static_cast<BatchSpy*>(self); }
    static const char* next(void* self, uint64_t* ticket) {
        BatchSpy& spy = of(self);
        while (const char* path = spy.caller.next(spy.caller.caller, ticket)) {
            spy.inHand[*ticket] = path;
            if (!cannotBeOpened(path)) return path;
            isBad(path);
            fail(spy, *ticket);
        }
        return nullptr;
    }
    static bool opened(void* self, uint64_t ticket, const struct stat* status) {
        BatchSpy& spy = of(self);
        if (!spy.caller.opened(spy.caller.caller, ticket, status)) return false;
        if (!isBad(spy.inHand[ticket])) return true;
        fail(spy, ticket);
        return false;
    }
    static void fail(BatchSpy& spy, uint64_t ticket) {
        const FileMD5Result result = {EIO, ""};
        spy.caller.done(spy.caller.caller, ticket, &result);
    }
    static void done(void* self, uint64_t ticket, const FileMD5Result* result) {
        of(self).caller.done(of(self).caller.caller, ticket, result);
    }
    static bool isAbandoned(void* self) {
        return of(self).caller.isAbandoned(of(self).caller.caller);
    }
};

}  // namespace

void computeFileMD5Batch(void* caller, const char* (*next)(void* caller, uint64_t* ticket),
                         bool (*opened)(void* caller, uint64_t ticket, const struct stat* status),
                         void (*done)(void* caller, uint64_t ticket, const FileMD5Result* result),
                         bool (*isAbandoned)(void* caller), bool enableLog) {
    BatchSpy spy = {{caller, next, opened, done, isAbandoned, enableLog}, {}};
    android::host::digestInLanes(android::host::md5Kernels(),
                                 {&spy, BatchSpy::next, BatchSpy::opened, BatchSpy::done,
                                  BatchSpy::isAbandoned, enableLog});
}
#endif

namespace rux {
namespace {

struct Result {
    std::vector<std::string> events;
    std::string files[2];
    std::vector<ino_t> readings;

    auto readingsOf(const std::string& file) const {
        return std::count(readings.begin(), readings.end(), test::inodeOf(file));
    }
};

class LookAheadTest : public testing::Test {
  protected:
    // The service asks for its root once, so all tests of this program share one.
    static void SetUpTestSuite() {
        shared = new test::Sandbox;
        setenv("RUX_ROOT", shared->root().c_str(), 1);
    }
    static void TearDownTestSuite() { delete shared; }
    void SetUp() override {
        fs::remove_all(sandbox.tree());
        fs::create_directory(sandbox.tree());
    }

    Json wholeTree() const {
        return Json::array({{{"sid", "s"},
                             {"regs", Json::array({".*"})},
                             {"dirs", Json::array({sandbox.tree()})}}});
    }

    Result scan(const Json& request, const LookAhead& ahead, const std::set<size_t>& stops = {}) {
        fs::remove_all(sandbox.database("s"));
        World now;
        now.stops = stops;
        now.scanThread = std::this_thread::get_id();
        world = &now;
        lookAhead = ahead;
        Rux_scanDuplicateFilesImp(request.dump());
        world = nullptr;
        return {now.events,
                {readFile(sandbox.database("s", "RUXFileInfo.json")),
                 readFile(sandbox.database("s", "RUXCheckNoCompress.json"))},
                now.readings};
    }

    /// Fills a directory with up to `entries` of everything that a tree may hold.
    void grow(const std::string& directory, int entries, int depth) {
        for (int i = 0; i < entries; ++i) {
            const std::string name = directory + "/" + std::to_string(i);
            const auto kind = random() % 20;
            if (kind < 2 && depth > 0) {
                fs::create_directory(name);
                grow(name, static_cast<int>(random() % 25), depth - 1);
            } else if (kind == 3) {
                rux::test::writeFile(name + ".empty", "");
            } else if (kind == 4) {
                fs::create_symlink(random() % 2 == 0 ? "nowhere" : ".", name + ".round");
            } else if (kind == 5 && !files.empty()) {
                fs::create_symlink(files[random() % files.size()], name + ".link");
            } else if (kind == 6 && !files.empty()) {
                fs::create_hard_link(files[random() % files.size()], name + ".hard");
            } else if (kind == 7) {
                mkfifo((name + ".pipe").c_str(), 0600);
            } else {
                constexpr const char* kSuffixes[] = {".jpg", ".jpg",     ".jpg",
                                                     ".bad", ".private", "\xff.jpg"};
                const std::string path = name + kSuffixes[random() % std::size(kSuffixes)];
                rux::test::writeFile(path, std::string(random() % 50 == 0 ? 300000 : 7,
                                                       static_cast<char>('a' + random() % 26)));
                files.push_back(path);
                if (path.ends_with(".bad")) badFiles.insert(test::inodeOf(path));
            }
            if (random() % 100 == 0) directories.push_back(directory);
        }
    }

    static test::Sandbox* shared;
    test::Sandbox& sandbox = *shared;
    std::mt19937 random{4};
    std::vector<std::string> files;
    std::vector<std::string> directories;
};

test::Sandbox* LookAheadTest::shared = nullptr;

TEST_F(LookAheadTest, CannotBeObserved) {
    rux::test::writeFile(sandbox.database("RUXExceptRules.json"), R"([".*\\.private"])");
    for (int round = 0; round < (RUX_SLOW_AND_LARGE ? 6 : 30); ++round) {
        files.clear();
        badFiles.clear();
        directories = {sandbox.tree(), sandbox.tree() + "/"};
        fs::remove_all(sandbox.tree());
        fs::create_directory(sandbox.tree());
        grow(sandbox.tree(), static_cast<int>(random() % 40), 4);
        // Starting paths that repeat and overlap, files, and one that is not there.
        Json dirs = Json::array({directories[random() % directories.size()]});
        for (int i = 0; i < 4; ++i) dirs.push_back(directories[random() % directories.size()]);
        if (!files.empty()) {
            const std::string& file = files[random() % files.size()];
            if (file.find('\xff') == std::string::npos) dirs.push_back(file);
        }
        dirs.push_back(sandbox.path("missing"));
        dirs.push_back(sandbox.tree());
        const Json request = Json::array({
                {{"sid", "s"}, {"regs", Json::array({R"(.*\.jpg)"})}, {"dirs", dirs}},
                {{"sid", "s"}, {"regs", Json::array({".*[^k]"})}, {"dirs", dirs}},
        });
        const size_t polls = [&] {
            const Result whole = scan(request, kNoLookAhead);
            return static_cast<size_t>(
                    std::count(whole.events.begin(), whole.events.end(), "poll"));
        }();
        // Never stopped; stopped at one poll that the client takes back at once; at several; and
        // for good, as a client does it.
        std::set<size_t> once = {random() % polls};
        std::set<size_t> often;
        for (int i = 0; i < 20; ++i) often.insert(random() % polls);
        std::set<size_t> forGood;
        for (size_t i = random() % polls; i < polls; ++i) forGood.insert(i);
        for (const std::set<size_t>& stops : {std::set<size_t>(), once, often, forGood}) {
            const Result expected = scan(request, kNoLookAhead, stops);
            for (const LookAhead& ahead :
                 {LookAhead{4096, 1 << 30, 2}, LookAhead{1 + random() % 40, 100, 3},
                  LookAhead{1 + random() % 1000, 1 << 30, 1}, LookAhead{100, 1 << 30, 0}}) {
                const Result result = scan(request, ahead, stops);
                const auto differ = std::mismatch(result.events.begin(), result.events.end(),
                                                  expected.events.begin(), expected.events.end());
                ASSERT_TRUE(differ.first == result.events.end() &&
                            differ.second == expected.events.end())
                        << "round " << round << ", event " << differ.first - result.events.begin()
                        << ": " << (differ.first == result.events.end() ? "none" : *differ.first)
                        << " instead of "
                        << (differ.second == expected.events.end() ? "none" : *differ.second);
                ASSERT_TRUE(result.files[0] == expected.files[0]) << "round " << round;
                ASSERT_TRUE(result.files[1] == expected.files[1]) << "round " << round;
            }
        }
    }
}

TEST_F(LookAheadTest, PollsBeforeEveryEntryOfTheDirectories) {
    sandbox.write("file", "content");
    fs::create_directory(sandbox.path("empty"));
    const std::vector<std::string> events = scan(wholeTree(), LookAhead{4096, 1 << 30, 2}).events;
    // The path; ".", "..", the file and the directory; and again "." and "..".
    EXPECT_EQ(std::count(events.begin(), events.end(), "poll"), 1 + 4 + 2);
}

TEST_F(LookAheadTest, ReadsAFileOnceWhateverItsNames) {
    const std::string file = sandbox.write("a/file", "content");
    const std::string bad = sandbox.write("a/bad", "content");
    badFiles = {test::inodeOf(bad)};
    for (const std::string& original : {file, bad}) {
        fs::create_hard_link(original, original + ".hard");
        fs::create_symlink(original, original + ".link");
    }
    fs::create_symlink("a", sandbox.path("b"));
    const std::string changed = sandbox.write("a/changed", "content");
    std::this_thread::sleep_for(
            std::chrono::milliseconds(200));  // until their times can be relied on
    const Json request =
            Json::array({{{"sid", "s"},
                          {"regs", Json::array({".*"})},
                          {"dirs", Json::array({sandbox.tree(), file, sandbox.path("a")})}}});
    for (const LookAhead& ahead : {kNoLookAhead, LookAhead{4096, 1 << 30, 2}}) {
        const Result result = scan(request, ahead);
        EXPECT_EQ(result.readingsOf(file), 1);
        EXPECT_EQ(result.readingsOf(changed), 1);
        // Without a digest each name is tried, each time it is met.
        EXPECT_EQ(result.readingsOf(bad), 9);
        const Json groups = Json::parse(result.files[1]);
        EXPECT_EQ(groups.size(), 1U);
        EXPECT_EQ(groups[test::md5sum(file)]["f_list"].size(), 8U);
    }
    // Within one request: the next one reads again.
    EXPECT_EQ(scan(request, LookAhead{4096, 1 << 30, 2}).readingsOf(file), 1);
}

TEST_F(LookAheadTest, PreparesNoMoreThanItMayWhileAFileTakesLong) {
    for (int i = 0; i < 500; ++i) sandbox.write(std::to_string(i), "content");
    // The one whose turn comes first, in the order of the directory.
    slowFile = test::inodeOf(fs::directory_iterator(sandbox.tree())->path());
    for (const LookAhead& ahead :
         {LookAhead{50, 1 << 30, 2}, LookAhead{4096, int64_t{50} * 7, 2}}) {
        readMeanwhile = 0;
        scan(wholeTree(), ahead);
        // And the file before it, when the other worker has that one.
        EXPECT_LE(readMeanwhile, 50U + 1);
        EXPECT_GT(readMeanwhile, 20U);
    }
    slowFile = 0;
}

}  // namespace
}  // namespace rux
