// What each part costs by itself: digests, patterns, polls, loading, saving, grouping.
//
// usage: parts_bench [--benchmark_filter=REGEX ...]

#include <benchmark/benchmark.h>
#include <sys/stat.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "android-base/properties.h"
#include "control/properties.h"
#include "db/database_root.h"
#include "db/images.h"
#include "db/json_text.h"
#include "db/json_writer.h"
#include "dup/grouping.h"
#include "f2fs_io/digest/kernel.h"
#include "request/patterns.h"
#include "scan/fingerprint.h"
#include "tavo_f2fs_io.h"
#include "tavo_f2fs_io_extensions.h"

namespace {

namespace fs = std::filesystem;

/// A root of its own, removed at the end.
struct Root {
    std::string path;
    Root() {
        char name[] = "/tmp/rux-parts-XXXXXX";
        if (mkdtemp(name) == nullptr) abort();
        path = name;
        setenv("RUX_ROOT", name, 1);
        fs::create_directories(path + "/data/local/zel/s");
    }
    ~Root() { fs::remove_all(path); }
} root;

std::string pathOf(int64_t number) {
    char text[64];
    snprintf(text, sizeof(text), "/data/media/0/album%03d/photo_%07d.jpg",
             static_cast<int>(number / 200), static_cast<int>(number));
    return text;
}

/// Fills the images with records and groups of two.
void fillImages(int64_t files) {
    rux::fileInfoDB.change() = Json::Value(Json::objectValue);
    rux::checkNoCompressDB.change() = Json::Value(Json::objectValue);
    const rux::PatternList all({".*"});
    const rux::PatternList none;
    const rux::Reach everything;
    struct stat st = {};
    st.st_size = 5000;
    rux::PendingMembers pendingMembers;
    for (int64_t i = 0; i < files; ++i) {
        const std::string path = pathOf(i * 7919 % files);
        const rux::SharedDigest digest = rux::notComputed();
        digest->code = 0;
        snprintf(digest->md5, sizeof(digest->md5), "%016llx%016x",
                 static_cast<unsigned long long>(i / 2) * 0x9e3779b97f4a7c15ULL, 0);
        rux::calculateFileMD5(path, st, rux::judge(path, "", {all, none, everything}), digest,
                              pendingMembers);
    }
    pendingMembers.enter();
}

void recordFiles(benchmark::State& state) {
    while (state.KeepRunning()) fillImages(state.range(0));
    state.SetItemsProcessed(state.iterations() * state.range(0));
}
BENCHMARK(recordFiles)->Arg(10'000)->Arg(100'000)->Unit(benchmark::kMillisecond);

void saveImages(benchmark::State& state) {
    fillImages(state.range(0));
    while (state.KeepRunning()) {
        rux::fileInfoDB.change();
        rux::checkNoCompressDB.change();
        rux::DBWriteUpdate(rux::databaseRoot() + "s", true, true, false, false);
    }
    state.SetItemsProcessed(state.iterations() * state.range(0));
}
BENCHMARK(saveImages)->Arg(10'000)->Arg(100'000)->Unit(benchmark::kMillisecond);

void loadImages(benchmark::State& state) {
    const bool isKnown = state.range(1) != 0;
    fillImages(state.range(0));
    rux::DBWriteUpdate(rux::databaseRoot() + "s", true, true, false, false);
    while (state.KeepRunning()) {
        if (!isKnown) {
            rux::fileInfoDB = {};
            rux::checkNoCompressDB = {};
        }
        rux::DBReaderInit(rux::databaseRoot() + "s", true, true, false, false);
    }
    state.SetItemsProcessed(state.iterations() * state.range(0));
    state.SetLabel(isKnown ? "as the service left them" : "anew");
}
BENCHMARK(loadImages)->Args({100'000, 0})->Args({100'000, 1})->Unit(benchmark::kMillisecond);

void writeJson(benchmark::State& state) {
    fillImages(state.range(0));
    int64_t bytes = 0;
    while (state.KeepRunning())
        rux::writeJson(*rux::fileInfoDB, [&bytes](std::string_view piece) {
            bytes += static_cast<int64_t>(piece.size());
        });
    state.SetBytesProcessed(bytes);
}
BENCHMARK(writeJson)->Arg(100'000)->Unit(benchmark::kMillisecond);

/// A listing's pass over groups whose files are there.
void groupingPass(benchmark::State& state) {
    const std::string tree = root.path + "/tree";
    fs::create_directories(tree);
    Json::Value groups(Json::objectValue);
    Json::Value records(Json::objectValue);
    for (int64_t i = 0; i < state.range(0); ++i) {
        const std::string path = tree + "/" + std::to_string(i);
        std::ofstream(path) << "x";
        struct stat st = {};
        stat(path.c_str(), &st);
        records[path]["s_time"] = static_cast<Json::Int64>(st.st_mtime);
        groups[std::to_string(i / 2)]["f_list"].append(path);
    }
    rux::fileInfoDB.change() = std::move(records);
    rux::checkNoCompressDB.change() = std::move(groups);
    const rux::PatternList patterns({".*"});
    while (state.KeepRunning()) {
        rux::DupCounts counts;
        rux::readDupFiles(patterns, counts);
        if (counts.dupFileCount != state.range(0)) state.SkipWithError("not all were counted");
    }
    state.SetItemsProcessed(state.iterations() * state.range(0));
}
BENCHMARK(groupingPass)->Arg(10'000)->Unit(benchmark::kMillisecond);

void pollStopProperty(benchmark::State& state) {
    android::base::SetProperty(rux::kStopScan, "false");
    while (state.KeepRunning()) benchmark::DoNotOptimize(rux::getStopProp(rux::kStopScan));
}
BENCHMARK(pollStopProperty);

void matchPattern(benchmark::State& state, const char* pattern) {
    const rux::PatternList patterns({pattern});
    const std::string path = pathOf(123456);
    while (state.KeepRunning()) benchmark::DoNotOptimize(patterns.matches(path));
}
BENCHMARK_CAPTURE(matchPattern, anything, ".*");
BENCHMARK_CAPTURE(matchPattern, suffix, R"(.*\.jpg)");
BENCHMARK_CAPTURE(matchPattern, directory, "/data/media/0/.*");
BENCHMARK_CAPTURE(matchPattern, both, R"(/data/media/0/.*\.jpg)");
BENCHMARK_CAPTURE(matchPattern, alternatives, R"(.*\.(jpe?g|png|heic))");

/// The block function alone, for all of its lanes.
void digestKernel(benchmark::State& state, const android::host::Md5Kernels& kernels) {
    constexpr size_t kBytes = 16 << 10;
    const size_t lanes = kernels.maxLanes();
    const std::vector<unsigned char> bytes(lanes * (kBytes + 64), 'x');
    const unsigned char* data[android::host::kMaxMd5Lanes];
    for (size_t i = 0; i < lanes; ++i) data[i] = bytes.data() + i * (kBytes + 64);
    android::host::Md5States states = {};
    while (state.KeepRunning()) kernels.forMessages(lanes).run(states, data, kBytes / 64);
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * lanes * kBytes));
}
BENCHMARK_CAPTURE(digestKernel, vectors128, android::host::kMd5Kernels128);
#if defined(__x86_64__)
BENCHMARK_CAPTURE(digestKernel, best, android::host::md5Kernels());
#endif

/// Files of one size, all at once and one by one.
void digestFiles(benchmark::State& state) {
    const bool isBatch = state.range(1) != 0;
    const auto size = static_cast<size_t>(state.range(0));
    struct Files {
        std::vector<std::string> paths;
        size_t next = 0;
    } files;
    fs::create_directories(root.path + "/digests");
    for (size_t i = 0; i < std::max<size_t>(64, (16U << 20) / size); ++i) {
        files.paths.push_back(root.path + "/digests/" + std::to_string(i));
        std::ofstream(files.paths.back()) << std::string(size, static_cast<char>('a' + i % 26));
    }
    while (state.KeepRunning()) {
        files.next = 0;
        if (!isBatch) {
            for (const std::string& path : files.paths)
                benchmark::DoNotOptimize(computeFileMD5(path.c_str(), false));
            continue;
        }
        computeFileMD5Batch(
                32,
                [&files](void** /*file*/) {
                    return files.next < files.paths.size() ? files.paths[files.next++].c_str()
                                                           : nullptr;
                },
                [](void* /*file*/, const struct stat& /*status*/) { return true; },
                [](void* /*file*/, const FileMD5Result& result) {
                    if (result.code != 0) abort();
                },
                [] { return false; }, false);
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * files.paths.size() * size));
    state.SetLabel(isBatch ? "many at once" : "one by one");
    fs::remove_all(root.path + "/digests");
}
BENCHMARK(digestFiles)->ArgsProduct({{1000, 5000, 100'000, 3'000'000}, {0, 1}});

}  // namespace

BENCHMARK_MAIN();
