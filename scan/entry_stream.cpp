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
constexpr size_t kFew = 2;         // chunks that the reader is never without, as far as possible
constexpr size_t kMaxChunk = 256;  // entries that change hands together

bool isDotName(const char* name) {
    return strcmp(name, ".") == 0 || strcmp(name, "..") == 0;
}

void moveTo(std::deque<Entry>& entries, std::vector<Entry>& more) {
    std::move(more.begin(), more.end(), std::back_inserter(entries));
}

}  // namespace

EntryStream::EntryStream(const std::string& start, size_t lookAhead)
      : mPath(start), mChunk(std::min((lookAhead + kChunks - 1) / kChunks, kMaxChunk)) {
    struct stat status = {};
    Stream stream(opendir(start.c_str()));
    if (stream == nullptr || fstat(dirfd(stream.get()), &status) != 0) return;
    mLevels.push_back({std::move(stream), status.st_dev, status.st_ino, start.size()});
    mIsOpen = true;
}

EntryStream::~EntryStream() {
    stopThread();
}

bool EntryStream::read(std::deque<Entry>& entries, bool wait) {
    if (!mThread.joinable()) return readOnOwnThread(entries);
    std::unique_lock lock(mMutex);
    const auto isInWork = [this] {
        return !mChunks.empty() && mChunks.front()->state == Chunk::State::InWork;
    };
    if (wait) {
        mChanged.wait(lock, [&] { return mChunks.empty() ? mDone : !isInWork(); });
    }
    if (mChunks.empty()) {
        if (mFailure != nullptr) std::rethrow_exception(mFailure);
        return !mDone;
    }
    if (isInWork()) return true;
    const std::unique_ptr<Chunk> chunk = std::move(mChunks.front());
    mChunks.pop_front();
    lock.unlock();
    mChanged.notify_all();
    resolve(*chunk);
    moveTo(entries, chunk->entries);
    return true;
}

bool EntryStream::readOnOwnThread(std::deque<Entry>& entries) {
    if (mLevels.empty()) return false;
    if (mChunk == 0) {
        entries.push_back(nextEntry());
        resolve(entries.back());
        return true;
    }
    // A small directory is done with before a thread would have started.
    const std::unique_ptr<Chunk> chunk = nextChunk();
    resolve(*chunk);
    moveTo(entries, chunk->entries);
    startThread();
    return true;
}

void EntryStream::leaveDirectory(size_t depth, std::deque<Entry>& ahead) {
    stopThread();
    for (const std::unique_ptr<Chunk>& chunk : mChunks) {
        resolve(*chunk);
        moveTo(ahead, chunk->entries);
    }
    mChunks.clear();
    size_t level = depth;
    while (!ahead.empty() && level >= depth) {
        if (ahead.front().kind == Entry::Kind::Directory) ++level;
        if (ahead.front().kind == Entry::Kind::End) --level;
        ahead.pop_front();
    }
    // The end was not among them: then the walk is still in there itself.
    if (level >= depth) mLevels.resize(depth - 1);
}

std::unique_ptr<EntryStream::Chunk> EntryStream::nextChunk() {
    auto chunk = std::make_unique<Chunk>();
    chunk->entries.reserve(mChunk);
    while (chunk->entries.size() < mChunk && !mLevels.empty() && !mStop)
        chunk->entries.push_back(nextEntry());
    return chunk;
}

/// The next entry of the innermost directory. Only what decides where the walk goes is looked at.
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
    entry.kind = Entry::Kind::Unresolved;
    // The whole path decides whether the system could reach the entry at all.
    if (mPath.size() >= PATH_MAX) {
        entry.kind = Entry::Kind::Unreadable;
        return entry;
    }
    const bool mayBeDirectory =
            found->d_type == DT_DIR || found->d_type == DT_LNK || found->d_type == DT_UNKNOWN;
    const size_t nameStart = level.pathLength + 1;
    if (mayBeDirectory) entry.kind = enter(name);
    if (entry.kind != Entry::Kind::Unresolved) return entry;
    entry.path = mPath;
    entry.nameStart = nameStart;
    return entry;
}

/// Goes down into a directory and says what came of it; `Unresolved` for what is none.
Entry::Kind EntryStream::enter(const char* name) {
    const int above = dirfd(mLevels.back().stream.get());
    struct stat status = {};
    const int directory = openat(above, name, O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (directory < 0) {
        if (errno == ENOTDIR) return Entry::Kind::Unresolved;
        if (fstatat(above, name, &status, 0) != 0) return Entry::Kind::Unreadable;
        return S_ISDIR(status.st_mode) ? Entry::Kind::Unopenable : Entry::Kind::Unresolved;
    }
    Stream stream;
    // A directory on the path already is not entered: a symbolic link leads back up to it.
    if (fstat(directory, &status) == 0 && !isOnPath(status)) stream.reset(fdopendir(directory));
    if (stream == nullptr) {
        close(directory);
        return Entry::Kind::Unopenable;
    }
    mLevels.push_back({std::move(stream), status.st_dev, status.st_ino, mPath.size()});
    return Entry::Kind::Directory;
}

/// Reads the status that was left out.
void EntryStream::resolve(Entry& entry) {
    if (entry.kind != Entry::Kind::Unresolved) return;
    if (stat(entry.path.c_str(), &entry.status) != 0) {
        entry.kind = Entry::Kind::Unreadable;
    } else if (S_ISDIR(entry.status.st_mode) || entry.status.st_size == 0) {
        entry.kind = Entry::Kind::Unopenable;
    } else {
        entry.kind = Entry::Kind::File;
    }
}

void EntryStream::resolve(Chunk& chunk) {
    if (chunk.state == Chunk::State::Resolved) return;
    for (Entry& entry : chunk.entries) resolve(entry);
}

bool EntryStream::isOnPath(const struct stat& status) const {
    return std::any_of(mLevels.begin(), mLevels.end(), [&status](const Level& level) {
        return level.device == status.st_dev && level.inode == status.st_ino;
    });
}

void EntryStream::startThread() {
    mDone = mLevels.empty();
    if (mDone) return;
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
    mStop = false;
}

void EntryStream::readAhead() {
    std::unique_lock lock(mMutex);
    try {
        while (!mStop) {
            Chunk* const unresolved = mChunks.size() >= kFew ? oldestUnresolved() : nullptr;
            if (unresolved != nullptr) {
                unresolved->state = Chunk::State::InWork;
                lock.unlock();
                resolve(*unresolved);
                lock.lock();
                unresolved->state = Chunk::State::Resolved;
            } else if (mLevels.empty()) {
                break;
            } else if (mChunks.size() < kChunks) {
                lock.unlock();
                std::unique_ptr<Chunk> chunk = nextChunk();
                lock.lock();
                mChunks.push_back(std::move(chunk));
            } else {
                mChanged.wait(lock);
                continue;
            }
            mChanged.notify_all();
        }
    } catch (...) {
        if (!lock.owns_lock()) lock.lock();
        mFailure = std::current_exception();
    }
    mDone = mLevels.empty() || mFailure != nullptr;
    mChanged.notify_all();
}

/// With the lock held.
EntryStream::Chunk* EntryStream::oldestUnresolved() {
    for (const std::unique_ptr<Chunk>& chunk : mChunks) {
        if (chunk->state == Chunk::State::Unresolved) return chunk.get();
    }
    return nullptr;
}

}  // namespace rux
