#include "ruxctl/tree.h"

#include <dirent.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstring>
#include <memory>

#include "binder/Parcel.h"

namespace ruxctl {

TreeCount::TreeCount(std::vector<std::string> places, uint64_t leastBytes)
      : mLeastBytes(leastBytes), mThread([this, places = std::move(places)] {
            for (const std::string& place : places) add(place);
            mIsDone = true;
        }) {}

TreeCount::~TreeCount() {
    mIsStopped = true;
    if (mThread.joinable()) mThread.join();
}

const std::vector<std::string>& TreeCount::files() {
    if (mThread.joinable()) mThread.join();
    return mFiles;
}

const std::vector<std::pair<std::string, std::string>>& TreeCount::leftOut() {
    if (mThread.joinable()) mThread.join();
    return mLeftOut;
}

void TreeCount::add(const std::string& path) {
    struct stat st = {};
    if (mIsStopped) return;
    if (stat(path.c_str(), &st) != 0) {
        // A link to nothing, or to itself, is nobody's file.
        if (errno != ENOENT && errno != ELOOP) mLeftOut.emplace_back(path, strerror(errno));
    } else if (!S_ISDIR(st.st_mode)) {
        // Requests and databases are JSON, which holds Unicode alone.
        if (android::Parcel().writeUtf8AsUtf16(path) != android::OK) {
            mLeftOut.emplace_back(path, "its name is not valid UTF-8");
        } else if (S_ISREG(st.st_mode) && static_cast<uint64_t>(st.st_size) >= mLeastBytes) {
            mBytes += st.st_size;
            mFiles.push_back(path);
        }
    } else if (mSeen.insert({st.st_dev, st.st_ino}).second) {
        const std::unique_ptr<DIR, int (*)(DIR*)> directory(opendir(path.c_str()), closedir);
        if (directory == nullptr) {
            mLeftOut.emplace_back(path, strerror(errno));
            return;
        }
        while (const dirent* entry = readdir(directory.get())) {
            const std::string name = entry->d_name;
            if (name != "." && name != "..") add(path + "/" + name);
        }
    }
}

}  // namespace ruxctl
