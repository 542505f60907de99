#include "ruxctl/tree.h"

#include <dirent.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <memory>
#include <system_error>

#include "binder/Parcel.h"

namespace ruxctl {
namespace {

constexpr dev_t kNoDevice = 0;  // of a place that is no directory

std::string realPath(const std::string& path) {
    std::error_code error;
    return std::filesystem::canonical(path, error);
}

/// Whether a request and a database can hold the path: they are JSON, which is Unicode alone.
bool isText(const std::string& path) {
    const auto isAscii = [](char c) { return static_cast<signed char>(c) >= 0; };
    return std::all_of(path.begin(), path.end(), isAscii) ||
           android::Parcel().writeUtf8AsUtf16(path) == android::OK;
}

std::vector<std::pair<std::string, PathPatterns>> patternsOf(
        const std::vector<std::string>& globs) {
    std::vector<std::pair<std::string, PathPatterns>> patterns;
    patterns.reserve(globs.size());
    for (const std::string& glob : globs)
        patterns.emplace_back(glob, PathPatterns({patternOfGlob(glob)}));
    return patterns;
}

}  // namespace

TreeCount::TreeCount(std::vector<std::string> places, const Reach& reach,
                     const std::vector<std::string>& globs, bool countsBytes)
      : mPlaces(std::move(places)),
        mReach(reach),
        mCountsBytes(countsBytes || reach.minBytes > 0 || reach.maxBytes < UINT64_MAX),
        mUnmatched(patternsOf(globs)),
        mThread([this] { walk(); }) {}

std::vector<std::string> TreeCount::unmatched() const {
    std::vector<std::string> globs;
    for (const auto& [glob, pattern] : mUnmatched) globs.push_back(glob);
    return globs;
}

TreeCount::~TreeCount() {
    mIsStopped = true;
    finish();
}

void TreeCount::finish() {
    if (mThread.joinable()) mThread.join();
}

void TreeCount::walk() {
    for (const std::string& place : mPlaces) {
        if (mReach.followsLinks) mRealPlaces.insert(realPath(place));
    }
    for (const std::string& place : mPlaces) {
        struct stat st = {};
        if (stat(place.c_str(), &st) == 0 && S_ISDIR(st.st_mode)) {
            addDirectory(place, st, st.st_dev, false);
        } else {
            add(place, DT_UNKNOWN, kNoDevice, false);
        }
    }
    for (const auto& [size, files] : mLarge) {
        if (files > 1) mBytes += size * files;
    }
    mIsDone = true;
}

int64_t TreeCount::lone() const {
    return std::count_if(mLarge.begin(), mLarge.end(),
                         [](const auto& size) { return size.second == 1; });
}

void TreeCount::add(const std::string& path, unsigned char type, dev_t device, bool isOutside) {
    struct stat st = {};
    if (mIsStopped) return;
    if (type == DT_REG && !mCountsBytes) return addFile(path, isOutside);
    bool isThere = lstat(path.c_str(), &st) == 0;
    if (isThere && S_ISLNK(st.st_mode)) {
        if (!mReach.followsLinks && device != kNoDevice) return mUnfollowed.push_back(path);
        isOutside = isOutside || (mReach.followsLinks && !isBelow(realPath(path), mRealPlaces));
        isThere = stat(path.c_str(), &st) == 0;
    }
    if (isThere) {
        addThere(path, st, device, isOutside);
    } else if (errno != ENOENT && errno != ELOOP) {  // of a link to nothing, or to itself
        mLeftOut.emplace_back(path, strerror(errno));
    }
}

void TreeCount::addThere(const std::string& path, const struct stat& st, dev_t device,
                         bool isOutside) {
    if (S_ISDIR(st.st_mode) && mReach.staysOnFileSystem && st.st_dev != device) {
        mLeftOut.emplace_back(path, "on another file system");
    } else if (S_ISDIR(st.st_mode)) {
        addDirectory(path, st, device, isOutside);
    } else if (!S_ISREG(st.st_mode) || mReach.holds(st.st_size)) {
        const int64_t bytes = S_ISREG(st.st_mode) ? st.st_size : 0;
        const bool isLarge = static_cast<uint64_t>(bytes) >= mReach.loneBytes;
        if (isLarge) ++mLarge[bytes];
        mBytes += isLarge ? 0 : bytes;
        addFile(path, isOutside);
    }
}

void TreeCount::addFile(const std::string& path, bool isOutside) {
    if (!isText(path)) mLeftOut.emplace_back(path, "its name is not valid UTF-8");
    std::erase_if(mUnmatched, [&path](const auto& glob) { return glob.second.match(path); });
    mOutside += isOutside ? 1 : 0;
}

void TreeCount::addDirectory(const std::string& path, const struct stat& st, dev_t device,
                             bool isOutside) {
    if (!mSeen.insert({st.st_dev, st.st_ino}).second) return;
    const std::unique_ptr<DIR, int (*)(DIR*)> directory(opendir(path.c_str()), closedir);
    if (directory == nullptr) {
        mLeftOut.emplace_back(path, strerror(errno));
        return;
    }
    while (const dirent* entry = readdir(directory.get())) {
        const std::string name = entry->d_name;
        if (name != "." && name != "..") add(path + "/" + name, entry->d_type, device, isOutside);
    }
}

}  // namespace ruxctl
