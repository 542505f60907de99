#include "scan/blocks.h"

#include <sys/resource.h>

#include <algorithm>
#include <deque>
#include <iterator>
#include <new>
#include <utility>

#include "control/properties.h"
#include "db/images.h"
#include "platform/include/tavo_f2fs_io_extensions.h"

namespace rux {
namespace {

constexpr size_t kMost = 8192;  // entries of a block
constexpr int64_t kMaxBytes = int64_t{512} << 20;
constexpr size_t kInHand = 32;  // digests at once for each processor; each has a buffer
constexpr size_t kUnit = 512;   // bytes, in which getrusage(2) counts
constexpr size_t kSmall = size_t{64} << 10;  // bytes of a file

/// How many bytes this process has read from disks.
size_t readFromDisk() {
    rusage usage = {};
    getrusage(RUSAGE_SELF, &usage);
    return kUnit * static_cast<size_t>(usage.ru_inblock);
}

bool needsDigest(const Item& item) {
    return item.judgement.need == Need::Digest;
}

size_t digestsOf(const Block& block) {
    return static_cast<size_t>(std::count_if(block.begin(), block.end(), needsDigest));
}

}  // namespace

bool Item::isPostponed(const Reach& reach) const {
    return needsDigest(*this) && entry.kind == Entry::Kind::File &&
           static_cast<uint64_t>(status.st_size) >= reach.loneBytes &&
           (judgement.known == nullptr || !judgement.known->holds(status));
}

Blocks::Blocks(EntryStream& stream, DigestCache& cache, const Selection& selection)
      : mStream(stream),
        mCache(cache),
        mSelection(selection),
        mMayBeFinished(!fileInfoDB->empty()),
        mFromDisk(readFromDisk()) {}

const Item* Blocks::next() {
    while (mNext == mBlock.size()) {
        if (!advance()) return nullptr;
    }
    return &mBlock[mNext++];
}

/// Makes the next block the current one, and begins to read the one after it. False at the end of
/// the walk.
bool Blocks::advance() {
    if (mListed.empty()) mListed = list();
    Block rest;
    mBlock = finishReading(rest);
    mNext = 0;
    Block& next = rest.empty() ? mListed : rest;
    if (next.empty()) return !mBlock.empty();
    mReader.emplace(std::exchange(next, {}), readers(), mSelection, mCache);
    return true;
}

/// The threads for the next block. Where those of the block before have met small files that came
/// from a disk, they will mostly wait.
size_t Blocks::readers() {
    const size_t before = std::exchange(mFromDisk, readFromDisk());
    const size_t each = (mFromDisk - before) / std::max<size_t>(mBlock.size(), 1);
    return each > kUnit && each < kSmall ? std::max(processors(), kThreadsForDisk) : processors();
}

Block Blocks::finishReading(Block& rest) {
    Block read;
    if (mReader) read = mReader->finish(rest);
    mReader.reset();
    return read;
}

/// The next entries, and what their files need: patterns may take long. One at least until the end
/// of the walk.
Block Blocks::list() {
    Block block;
    block.reserve(mMost);
    while (block.size() < mMost && (block.empty() || !getStopProp(kStopScan))) {
        std::optional<Entry> entry = mStream.next();
        if (!entry) break;
        Item& item = block.emplace_back();
        item.entry = std::move(*entry);
        if (!item.entry.needsStatus()) continue;
        item.judgement = judge(item.entry.path, item.entry.realPath, mSelection, mMayBeFinished);
    }
    mMost = std::min(2 * mMost, kMost);
    return block;
}

void Blocks::leaveDirectory() {
    const size_t depth = mBlock[mNext - 1].entry.depth;
    std::deque<Entry> ahead;
    const auto putBack = [&](Block block, size_t from) {
        for (size_t i = from; i < block.size(); ++i) ahead.push_back(std::move(block[i].entry));
    };
    Block rest;
    putBack(std::exchange(mBlock, {}), std::exchange(mNext, 0));
    putBack(finishReading(rest), 0);
    putBack(std::move(rest), 0);
    putBack(std::exchange(mListed, {}), 0);
    mStream.leaveDirectory(depth, std::move(ahead));
}

BlockReader::BlockReader(Block block, size_t threads, const Selection& selection,
                         DigestCache& cache)
      : mBlock(std::move(block)),
        mSelection(selection),
        mCache(cache),
        mMostInHand(1 + std::min(digestsOf(mBlock), kInHand * processors()) / threads),
        mWork(threads, [this] { readShare(); }) {}

Block BlockReader::finish(Block& rest) {
    mWork.finish();
    mTaken = std::max<size_t>(mTaken, 1);
    const auto end = mBlock.begin() + static_cast<ptrdiff_t>(mTaken);
    rest.assign(std::make_move_iterator(end), std::make_move_iterator(mBlock.end()));
    mBlock.erase(end, mBlock.end());
    for (Item& item : mBlock) readStatus(item);  // where a thread was out of memory
    return std::move(mBlock);
}

void BlockReader::readStatus(Item& item) const {
    if (!item.entry.needsStatus()) return;
    const bool isThere = stat(item.entry.path.c_str(), &item.status) == 0;
    item.entry.kind = isThere ? kindOf(item.status, mSelection.reach) : Entry::Kind::Unreadable;
}

/// What one of the threads does.
void BlockReader::readShare() {
    bool isFirst = true;  // which each thread gets, however long those of the others are
    const auto next = [&](void** file) -> const char* {
        Item* const item = nextFile(std::exchange(isFirst, false) ? INT64_MAX : kMaxBytes);
        *file = item;
        return item != nullptr ? item->entry.path.c_str() : nullptr;
    };
    const auto opened = [this](void* file, const struct stat& status) {
        return begin(*static_cast<Item*>(file), status);
    };
    const auto done = [this](void* file, const FileMD5Result& result) {
        end(*static_cast<Item*>(file), result);
    };
    const auto isAbandoned = [] { return getStopProp(kStopScan); };
    try {
        if (computeFileMD5Batch != nullptr) {
            computeFileMD5Batch(mMostInHand, next, opened, done, isAbandoned, toolLogEnabled);
            return;
        }
        void* file = nullptr;
        const char* path = nullptr;
        while (!isAbandoned() && (path = next(&file)) != nullptr) {
            struct stat status = {};
            if (stat(path, &status) == 0 && !opened(file, status)) continue;
            done(file, computeFileMD5(path, toolLogEnabled));
        }
    } catch (const std::bad_alloc&) {  // what is missing is computed later, file by file
    }
}

/// The next file whose digest may be needed. Of the entries before it the status is read.
Item* BlockReader::nextFile(int64_t maxBytes) {
    while (Item* const item = take(maxBytes)) {
        KnownPath*& known = item->judgement.known;
        if (mSelection.known != nullptr) known = mSelection.known->find(item->entry.path);
        if (needsDigest(*item) && item->entry.kind == Entry::Kind::Regular && known == nullptr)
            return item;
        // What is no file with content is not opened: that might have an effect.
        readStatus(*item);
        if (needsDigest(*item) && item->entry.kind == Entry::Kind::File &&
            (known == nullptr || !known->holds(item->status)))
            return item;
    }
    return nullptr;
}

Item* BlockReader::take(int64_t maxBytes) {
    const std::lock_guard lock(mMutex);
    return mBytes < maxBytes && mTaken < mBlock.size() ? &mBlock[mTaken++] : nullptr;
}

/// Whether the digest of a file with that status has to be computed.
bool BlockReader::begin(Item& item, const struct stat& status) {
    item.status = status;
    item.entry.kind = kindOf(status, mSelection.reach);
    if (item.entry.kind != Entry::Kind::File || item.isPostponed(mSelection.reach)) return false;
    const SharedDigest own = notComputed();
    const std::lock_guard lock(mMutex);
    item.digest = mCache.findOrAdd(status, own);
    if (item.digest == own) mBytes += status.st_size;
    return item.digest == own;
}

void BlockReader::end(Item& item, const FileMD5Result& result) {
    readStatus(item);  // of one that could not be opened
    if (item.digest == nullptr) item.digest = notComputed();
    *item.digest = result;
    if (result.code == 0) return;
    const std::lock_guard lock(mMutex);
    mCache.remove(item.status);
}

}  // namespace rux
