#include "ruxctl/tree.h"

#include <dirent.h>
#include <sys/stat.h>

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

}  // namespace

TreeCount::TreeCount(std::vector<std::string> places, const Reach& reach)
      : mPlaces(std::move(places)), mReach(reach), mThread([this] { walk(); }) {}

TreeCount::~TreeCount() {
    mIsStopped = true;
    finish();
}

void TreeCount::finish() {
    if (mThread.joinable()) mThread.join();
}

void TreeCount::walk() {
    for (const std::string& place : mPlaces) mRealPlaces.insert(realPath(place));
    for (const std::string& place : mPlaces) {
        struct stat st = {};
        if (stat(place.c_str(), &st) == 0 && S_ISDIR(st.st_mode)) {
            addDirectory(place, st.st_dev, false);
        } else {
            add(place, kNoDevice, false);
        }
    }
    mIsDone = true;
}

void TreeCount::add(const std::string& path, dev_t device, bool isOutside) {
    struct stat st = {};
    if (mIsStopped) return;
    const bool isLink = lstat(path.c_str(), &st) == 0 && S_ISLNK(st.st_mode);
    const bool isPlace = device == kNoDevice;
    if (isLink && !mReach.followsLinks && !isPlace) {
        mUnfollowed.push_back(path);
    } else if (stat(path.c_str(), &st) != 0) {
        // A link to nothing, or to itself, is nobody's file.
        if (errno != ENOENT && errno != ELOOP) mLeftOut.emplace_back(path, strerror(errno));
    } else if (S_ISDIR(st.st_mode) && mReach.staysOnFileSystem && st.st_dev != device) {
        mLeftOut.emplace_back(path, "on another file system");
    } else if (S_ISDIR(st.st_mode)) {
        addDirectory(path, device, isOutside || (isLink && !isBelow(realPath(path), mRealPlaces)));
    } else if (android::Parcel().writeUtf8AsUtf16(path) != android::OK) {
        // Requests and databases are JSON, which holds Unicode alone.
        mLeftOut.emplace_back(path, "its name is not valid UTF-8");
    } else if (S_ISREG(st.st_mode) && mReach.holds(st.st_size)) {
        mBytes += st.st_size;
        isOutside = isOutside || (isLink && !isBelow(realPath(path), mRealPlaces));
        mOutside += isOutside ? 1 : 0;
    }
}

void TreeCount::addDirectory(const std::string& path, dev_t device, bool isOutside) {
    struct stat st = {};
    if (stat(path.c_str(), &st) != 0 || !mSeen.insert({st.st_dev, st.st_ino}).second) return;
    const std::unique_ptr<DIR, int (*)(DIR*)> directory(opendir(path.c_str()), closedir);
    if (directory == nullptr) {
        mLeftOut.emplace_back(path, strerror(errno));
        return;
    }
    while (const dirent* entry = readdir(directory.get())) {
        const std::string name = entry->d_name;
        if (name != "." && name != "..") add(path + "/" + name, device, isOutside);
    }
}

}  // namespace ruxctl
