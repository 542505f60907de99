/// The entries of a walk, prepared block by block.
#pragma once

#include <sys/stat.h>

#include <cstdint>
#include <mutex>
#include <optional>
#include <vector>

#include "control/parallel.h"
#include "scan/digest_cache.h"
#include "scan/entry_stream.h"
#include "scan/fingerprint.h"

namespace rux {

/// An entry and what has been found out about it.
struct Item {
    Entry entry;
    Judgement judgement;
    struct stat status = {};  // of what is no directory; of a file, from before its digest
    SharedDigest digest;      // of a path that needs one

    /// Whether it is a large file, whose digest is not needed unless another may be equal to it.
    bool isPostponed(const Reach& reach) const;
};
using Block = std::vector<Item>;

/// Reads the status of a block's entries, and the digests of those files that need one and are not
/// postponed, in their order. Each thread begins with one file, however long. No further entry is
/// begun when the files have 512 MiB, which bounds what a stop makes undone, nor once the scan's
/// stop property is set; digests under way then end with ECANCELED.
class BlockReader {
  public:
    /// Begins in other threads, `threads` with that of the caller.
    BlockReader(Block block, size_t threads, const Selection& selection, DigestCache& cache);

    /// Takes part, and returns when nobody reads any more: the entries that have been read, at
    /// least the first. The others are left in `rest`.
    Block finish(Block& rest);

  private:
    void readShare();
    void readStatus(Item& item) const;
    Item* nextFile(int64_t maxBytes);
    Item* take(int64_t maxBytes);
    bool begin(Item& item, const struct stat& status);
    void end(Item& item, const FileMD5Result& result);

    Block mBlock;
    const Selection& mSelection;
    DigestCache& mCache;
    const size_t mMostInHand;  // digests, of one thread: of few files each takes its share
    std::mutex mMutex;         // for the cache and what follows
    size_t mTaken = 0;         // entries
    int64_t mBytes = 0;        // of the files whose digests were begun
    SharedWork mWork;
};

/// Lists the entries of a walk and judges them. While the caller works on one block, the next one
/// is read. Nothing of this can be observed.
class Blocks {
  public:
    Blocks(EntryStream& stream, DigestCache& cache, const Selection& selection);

    /// The next entry, valid until the following call; null at the end of the walk.
    const Item* next();

    /// Leaves out what is left of the directory of the entry that was given last.
    void leaveDirectory();

  private:
    bool advance();
    Block finishReading(Block& rest);
    Block list();
    size_t readers();

    EntryStream& mStream;
    DigestCache& mCache;
    const Selection& mSelection;
    const bool mMayBeFinished;  // there were records before this walk, which meets each path once
    Block mBlock;               // the current one
    size_t mNext = 0;           // entry of it
    std::optional<BlockReader> mReader;  // of the next block
    Block mListed;                       // the one after that
    size_t mMost = 1024;                 // entries of a block; few at first, so that work begins
    size_t mFromDisk;                    // bytes that had been read when a block was begun
};

}  // namespace rux
