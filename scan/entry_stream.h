/// The entries below a directory, read ahead of their turn.
#pragma once

#include <dirent.h>
#include <sys/stat.h>

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <exception>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace rux {

/// What a directory stream has given: an entry, or its end.
struct Entry {
    enum class Kind : uint8_t {
        Dot,         // "." or ".."
        Unreadable,  // its status cannot be read
        Unopenable,  // an empty file, a device, or a directory that cannot be opened
        File,        // with content
        Directory,   // the entries that follow are its own, up to its End
        End,         // no entry: there are no more in this directory
        Unresolved,  // its status has not been read; never given to the reader
    };
    Kind kind = Kind::End;
    std::string path;      // of a file
    size_t nameStart = 0;  // where its name starts in it
    struct stat status = {};
};

/// Walks a tree depth first, in the order of the directories, symbolic links followed; a directory
/// that is on the current path already is not entered again.
///
/// A thread of its own reads ahead, up to a number of entries, and the reader lends a hand when it
/// would have to wait. Neither has any effect: what the entries bring about is the reader's
/// business.
class EntryStream {
  public:
    /// Opens the directory `start`. `lookAhead` is the number of entries to read ahead; 0 for none,
    /// and no thread.
    EntryStream(const std::string& start, size_t lookAhead);
    ~EntryStream();
    EntryStream(const EntryStream&) = delete;
    EntryStream& operator=(const EntryStream&) = delete;

    /// Whether `start` could be opened as a directory.
    bool isOpen() const { return mIsOpen; }

    /// Appends the next entries to `entries`, if there are any now or if it may `wait` for them.
    /// False when the walk is at its end. Throws what the walk has thrown.
    bool read(std::deque<Entry>& entries, bool wait);

    /// Leaves out everything up to the end of the directory that is `depth` levels below the start
    /// (1 for the start itself) and that the reader is in. `ahead` are entries that were read
    /// already but have not had their turn.
    void leaveDirectory(size_t depth, std::deque<Entry>& ahead);

  private:
    struct CloseStream {
        void operator()(DIR* stream) const { closedir(stream); }
    };
    using Stream = std::unique_ptr<DIR, CloseStream>;

    /// A directory on the path from the start to the entry under examination.
    struct Level {
        Stream stream;
        dev_t device;
        ino_t inode;
        size_t pathLength;  // of its own path, to which the entries' names are added
    };
    /// Entries that change hands together. Reading them is cheap and goes in order; their status is
    /// read by whoever has time.
    struct Chunk {
        std::vector<Entry> entries;
        enum class State : uint8_t { Unresolved, InWork, Resolved } state = State::Unresolved;
    };

    Entry nextEntry();
    std::unique_ptr<Chunk> nextChunk();
    static void resolve(Entry& entry);
    static void resolve(Chunk& chunk);
    Entry::Kind enter(const char* name);
    bool isOnPath(const struct stat& status) const;
    bool readOnOwnThread(std::deque<Entry>& entries);
    Chunk* oldestUnresolved();

    void startThread();
    void stopThread();
    void readAhead();

    // The walk itself: touched by the thread while there is one.
    std::vector<Level> mLevels;
    std::string mPath;

    const size_t mChunk;  // entries that change hands together; 0: no thread
    bool mIsOpen = false;
    std::thread mThread;
    std::mutex mMutex;
    std::condition_variable mChanged;
    std::deque<std::unique_ptr<Chunk>> mChunks;  // read ahead
    std::atomic<bool> mStop{false};              // the thread is to end
    bool mDone = false;                          // it has read everything
    std::exception_ptr mFailure;
};

}  // namespace rux
