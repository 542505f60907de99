#include "scan/entry_stream.h"

#include <fcntl.h>
#include <linux/limits.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <iterator>
#include <system_error>
#include <utility>

namespace rux {
namespace {

constexpr size_t kChunks = 8;      // that are read ahead
constexpr size_t kMaxChunk = 256;  // entries that change hands together

bool isDotName(const char* name) {
    return strcmp(name, ".") == 0 || strcmp(name, "..") == 0;
}

}  // namespace

EntryStream::EntryStream(const std::string& start, size_t lookAhead)
      : mPath(start), mChunk(std::min((lookAhead + kChunks - 1) / kChunks, kMaxChunk)) {
    struct stat status = {};
    Stream stream(opendir(start.c_str()));
    if (stream == nullptr || fstat(dirfd(stream.get()), &status) != 0) return;
    mLevels.push_back({std::move(stream), status.st_dev, status.st_ino, start.size()});
    mIsOpen = true;
    startThread();
}

EntryStream::~EntryStream() {
    stopThread();
}

bool EntryStream::read(std::deque<Entry>& entries, bool wait) {
    if (!mThread.joinable()) {
        if (mLevels.empty()) return false;
        entries.push_back(nextEntry());
        return true;
    }
    std::unique_lock lock(mMutex);
    if (wait) mChanged.wait(lock, [this] { return !mChunks.empty() || mDone; });
    if (mChunks.empty()) {
        if (mFailure != nullptr) std::rethrow_exception(mFailure);
        return !mDone;
    }
    Chunk chunk = std::move(mChunks.front());
    mChunks.pop_front();
    lock.unlock();
    mChanged.notify_all();
    std::move(chunk.begin(), chunk.end(), std::back_inserter(entries));
    return true;
}

void EntryStream::leaveDirectory(size_t depth, std::deque<Entry>& ahead) {
    stopThread();
    for (Chunk& chunk : mChunks) std::move(chunk.begin(), chunk.end(), std::back_inserter(ahead));
    mChunks.clear();
    size_t level = depth;
    while (!ahead.empty() && level >= depth) {
        if (ahead.front().kind == Entry::Kind::Directory) ++level;
        if (ahead.front().kind == Entry::Kind::End) --level;
        ahead.pop_front();
    }
    // The end was not among them: then the walk is still in there itself.
    if (level >= depth) mLevels.resize(depth - 1);
    startThread();
}

Entry EntryStream::nextEntry() {
    Level& level = mLevels.back();
    const dirent* found = readdir(level.stream.get());
    if (found == nullptr) {
        mLevels.pop_back();
        return {};
    }
    Entry entry;
    const char* const name = found->d_name;
    if (isDotName(name)) {
        entry.kind = Entry::Kind::Dot;
        return entry;
    }
    mPath.resize(level.pathLength);
    mPath.append("/").append(name);
    // The whole path decides whether the system could reach the entry at all.
    if (mPath.size() >= PATH_MAX ||
        fstatat(dirfd(level.stream.get()), name, &entry.status, 0) != 0) {
        entry.kind = Entry::Kind::Unreadable;
    } else if (S_ISDIR(entry.status.st_mode)) {
        entry.kind = enter(name, entry.status);
    } else if (entry.status.st_size == 0) {
        entry.kind = Entry::Kind::Unopenable;
    } else {
        entry.kind = Entry::Kind::File;
        entry.path = mPath;
        entry.nameStart = level.pathLength + 1;
    }
    return entry;
}

/// Goes down into a directory and says what came of it.
Entry::Kind EntryStream::enter(const char* name, const struct stat& status) {
    if (isOnPath(status)) return Entry::Kind::Unopenable;  // a symbolic link leads back up
    const int directory =
            openat(dirfd(mLevels.back().stream.get()), name, O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (directory < 0) {
        // Removed since its status was read, or not to be read.
        return errno == ENOENT ? Entry::Kind::Unreadable : Entry::Kind::Unopenable;
    }
    Stream stream(fdopendir(directory));
    if (stream == nullptr) {
        close(directory);
        return Entry::Kind::Unopenable;
    }
    mLevels.push_back({std::move(stream), status.st_dev, status.st_ino, mPath.size()});
    return Entry::Kind::Directory;
}

bool EntryStream::isOnPath(const struct stat& status) const {
    return std::any_of(mLevels.begin(), mLevels.end(), [&status](const Level& level) {
        return level.device == status.st_dev && level.inode == status.st_ino;
    });
}

void EntryStream::startThread() {
    mStop = false;
    mDone = mLevels.empty();
    if (mChunk == 0 || mDone) return;
    try {
        mThread = std::thread([this] { readAhead(); });
    } catch (const std::system_error&) {
        // Then each entry is read when its turn comes.
    }
}

void EntryStream::stopThread() {
    if (!mThread.joinable()) return;
    {
        const std::lock_guard lock(mMutex);
        mStop = true;
    }
    mChanged.notify_all();
    mThread.join();
}

void EntryStream::readAhead() {
    std::exception_ptr failure;
    try {
        while (!mLevels.empty()) {
            Chunk chunk;
            chunk.reserve(mChunk);
            while (chunk.size() < mChunk && !mLevels.empty() && !mStop)
                chunk.push_back(nextEntry());
            std::unique_lock lock(mMutex);
            mChunks.push_back(std::move(chunk));
            mChanged.notify_all();
            mChanged.wait(lock, [this] { return mStop || mChunks.size() < kChunks; });
            if (mStop) return;
        }
    } catch (...) {
        failure = std::current_exception();
    }
    const std::lock_guard lock(mMutex);
    mFailure = failure;
    mDone = true;
    mChanged.notify_all();
}

}  // namespace rux
