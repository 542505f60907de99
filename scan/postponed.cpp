#include "scan/postponed.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <map>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "android-base/unique_fd.h"
#include "control/parallel.h"
#include "control/properties.h"
#include "db/images.h"
#include "db/records.h"

namespace rux {
namespace {

/// How many files there are of a size, and of a likeness: a number for the size and the first
/// bytes.
struct Counts {
    std::map<int64_t, int> bySize;
    std::map<size_t, int> byLikeness;
};

size_t likenessOf(int64_t fileBytes, const std::string& path) {
    if (getStopProp(kStopScan)) return 0;
    char text[4096] = {};
    struct stat status = {};
    ssize_t size = 0;
    // What is no file is not opened: that might have an effect.
    if (stat(path.c_str(), &status) == 0 && S_ISREG(status.st_mode)) {
        const android::base::unique_fd file(
                openQuietly(AT_FDCWD, path.c_str(), O_NONBLOCK | O_NOCTTY));
        size = pread(file.get(), text, sizeof(text), 0);
    }
    const std::string_view first(text, static_cast<size_t>(std::max<ssize_t>(size, 0)));
    return std::hash<std::string_view>()(first) ^ static_cast<size_t>(fileBytes);
}

/// Adds the files of an image's groups that have the size of a postponed one.
void count(const Json::Value& image, Counts& counts) {
    if (!image.isObject()) return;
    for (const Json::Value& group : image) {
        const int64_t size = groupFileBytes(group);
        const Json::Value* const paths = groupPaths(group);
        if (paths == nullptr || !counts.bySize.contains(size)) continue;
        for (const Json::Value& path : *paths) {
            ++counts.bySize[size];
            ++counts.byLikeness[likenessOf(size, pathOf(path))];
        }
    }
}

}  // namespace

Block PostponedFiles::takeAlike(bool withLinked) {
    Block items = std::exchange(mItems, {});
    Counts counts;
    for (const Item& item : items) ++counts.bySize[item.status.st_size];
    count(*checkNoCompressDB, counts);
    if (withLinked) count(*checkACompressDB, counts);
    std::erase_if(items,
                  [&counts](const Item& item) { return counts.bySize[item.status.st_size] == 1; });
    std::vector<size_t> likenesses(items.size());
    inParallel(kThreadsForDisk, [&](size_t part) {
        for (size_t i = part; i < items.size(); i += kThreadsForDisk)
            likenesses[i] = likenessOf(items[i].status.st_size, items[i].entry.path);
    });
    for (const size_t likeness : likenesses) ++counts.byLikeness[likeness];
    Block alike;
    for (size_t i = 0; i < items.size(); ++i) {
        if (counts.byLikeness[likenesses[i]] == 1) continue;
        items[i].entry.kind = Entry::Kind::NoDirectory;  // its status may be another by now
        alike.push_back(std::move(items[i]));
    }
    return alike;
}

}  // namespace rux
