#include "f2fs_io/digest/lanes.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <memory>
#include <utility>
#include <vector>

#include "f2fs_io/digest/md5.h"
#include "f2fs_io/digest/source.h"
#include "log/tool_log.h"

namespace android::host {
namespace {

constexpr size_t kPiece = size_t{128} << 10;  // bytes a read
constexpr off_t kLong = off_t{4} << 20;       // bytes of a file that is not to be held up by others
constexpr size_t kLongPieces = 8;             // of a long file, for a few blocks of the others
constexpr size_t kLengthBytes = 8;            // of the message's length, the last of its last block
// Beside a piece in its buffer: what is left of the one before, and the padding. No multiple of a
// page: the same place in all buffers then is not in the same line of the cache.
constexpr size_t kBesidePiece = 3 * kMd5BlockBytes;

/// A file in hand and the piece of it that waits to be digested.
class Lane {
  public:
    Lane() = default;

    /// 0 or an errno.
    int open(const char* path, void* file) {
        drop();
        mPath = path;
        mFile = file;
        return mSource.open(path);
    }

    const struct stat& status() const { return mSource.status(); }
    void drop() { *this = Lane(std::move(mBuffer)); }

    /// Reads what can be had without waiting.
    void begin() {
        if (mBuffer == nullptr) mBuffer.reset(new unsigned char[kPiece + kBesidePiece]);
        const size_t wanted = wantedBytes();
        const ssize_t got = mSource.readAtOnce(mBuffer.get(), wanted);
        if (got > 0) take(static_cast<size_t>(got), wanted);
    }

    /// Reads on until there are blocks. 0 or an errno.
    int fill() {
        while (mBlocks == 0) {
            // A file that outgrows the size it had has changed, and may go on growing for ever.
            if (mRead > static_cast<uint64_t>(mSource.size())) return EAGAIN;
            memmove(mBuffer.get(), mBuffer.get() + mAt, mRest);
            mAt = 0;
            const size_t wanted = wantedBytes();
            const ssize_t got = mSource.read(mBuffer.get() + mRest, wanted);
            if (got < 0) return errno;
            take(static_cast<size_t>(got), wanted);
        }
        return 0;
    }

    /// The running digest.
    std::array<uint32_t, 4>& state() { return mState; }
    const unsigned char* data() const { return mBuffer.get() + mAt; }
    size_t blocks() const { return mBlocks; }
    bool isLong() const { return mSource.size() > kLong; }
    void advance(size_t blocks) {
        mAt += blocks * kMd5BlockBytes;
        mBlocks -= blocks;
    }
    bool isFinished() const { return mEnded && mBlocks == 0; }

    /// 0 when the file has stayed the same from its opening to now, else an errno.
    int close() { return mSource.close(); }

    const char* path() const { return mPath; }
    void* file() const { return mFile; }

  private:
    explicit Lane(std::unique_ptr<unsigned char[]> buffer) : mBuffer(std::move(buffer)) {}

    /// One byte more than there should be: a read that brings less has met the end, and no further
    /// one is needed to see it.
    size_t wantedBytes() const {
        const auto left = static_cast<uint64_t>(mSource.size()) - mRead;
        return static_cast<size_t>(std::min<uint64_t>(left + 1, kPiece));
    }

    /// Counts `got` bytes that were read behind the rest.
    void take(size_t got, size_t wanted) {
        mRead += got;
        mRest += got;
        mEnded = got == 0 || (got < wanted && mRead == static_cast<uint64_t>(mSource.size()));
        if (mEnded) pad();
        mBlocks = mRest / kMd5BlockBytes;
        mRest %= kMd5BlockBytes;
    }

    /// Appends a one bit, zeros up to the end of a block, and in its last bytes the length in bits.
    void pad() {
        const size_t end =
                (mRest + kLengthBytes) / kMd5BlockBytes * kMd5BlockBytes + kMd5BlockBytes;
        memset(mBuffer.get() + mRest, 0, end - mRest);
        mBuffer[mRest] = 0x80;
        const uint64_t bits = mRead * 8;
        memcpy(mBuffer.get() + end - kLengthBytes, &bits, kLengthBytes);
        mRest = end;
    }

    DigestSource mSource;
    std::unique_ptr<unsigned char[]> mBuffer;  // the lane's, for one file after the other
    const char* mPath = nullptr;
    void* mFile = nullptr;
    std::array<uint32_t, 4> mState = {0x67452301, 0xefcdab89, 0x98badcfe, 0x10325476};
    uint64_t mRead = 0;  // bytes of the file so far
    size_t mAt = 0;      // where the next block starts
    size_t mBlocks = 0;  // whole blocks from there on
    size_t mRest = 0;    // bytes behind them, less than a block
    bool mEnded = false;
};

/// The files in hand: the first `mActive` lanes, so that few of them need but a narrow kernel.
class Batch {
  public:
    Batch(const Md5Kernels& kernels, const BatchCaller& caller)
          : mKernels(kernels), mCaller(caller), mLanes(std::min(caller.most, kernels.maxLanes())) {}

    void run() {
        while (!mCaller.isAbandoned()) {
            takeFiles();
            if (mActive == 0) return;
            if (fill(isAny)) advance();
        }
        while (mActive > 0) finish(mActive - 1, ECANCELED);
    }

  private:
    void takeFiles() {
        while (mActive < mLanes.size()) {
            void* file = nullptr;
            const char* path = mCaller.next(&file);
            if (path == nullptr) return;
            const size_t lane = mActive++;
            if (const int error = mLanes[lane].open(path, file); error != 0) {
                finish(lane, error);
            } else if (!mCaller.opened(file, mLanes[lane].status())) {
                mLanes[lane].drop();
                --mActive;
            } else {
                mLanes[lane].begin();
            }
        }
    }

    static bool isAny(const Lane& /*lane*/) { return true; }
    static bool isUnfinishedLong(const Lane& lane) { return lane.isLong() && !lane.isFinished(); }

    /// Reads on in the lanes that `isMeant` accepts and that have no blocks. False when none of
    /// them is left.
    bool fill(bool (*isMeant)(const Lane& lane)) {
        bool found = false;
        for (size_t i = mActive; i-- > 0;) {  // from the end, because a finished one makes room
            if (!isMeant(mLanes[i])) continue;
            if (const int error = mLanes[i].fill(); error != 0) {
                finish(i, error);
            } else {
                found = true;
            }
        }
        return found;
    }

    /// Digests as many blocks as all lanes have; and then those of the long files that are left,
    /// and some further pieces of theirs. A long file that went no faster than the short ones
    /// beside it would be left over at the end, with everybody waiting for it.
    void advance() {
        advance(isAny);
        for (size_t piece = 0; piece < kLongPieces && fill(isUnfinishedLong); ++piece)
            advance(isUnfinishedLong);
        for (size_t i = mActive; i-- > 0;) {
            if (mLanes[i].isFinished()) finish(i, mLanes[i].close());
        }
    }

    /// Digests as many blocks as all of the lanes have that `isMeant` accepts.
    void advance(bool (*isMeant)(const Lane& lane)) {
        Lane* meant[kMaxMd5Lanes];
        const unsigned char* data[kMaxMd5Lanes];
        Md5States states = {};
        size_t count = 0;
        size_t blocks = SIZE_MAX;
        for (size_t i = 0; i < mActive; ++i) {
            Lane& lane = mLanes[i];
            if (!isMeant(lane)) continue;
            meant[count] = &lane;
            data[count] = lane.data();
            for (size_t word = 0; word < 4; ++word) states.words[word][count] = lane.state()[word];
            blocks = std::min(blocks, lane.blocks());
            ++count;
        }
        if (count == 0) return;
        const Md5Kernel& kernel = mKernels.forMessages(count);
        std::fill(data + count, data + kernel.lanes, data[0]);  // digested in vain
        kernel.run(states, data, blocks);
        for (size_t i = 0; i < count; ++i) {
            for (size_t word = 0; word < 4; ++word) meant[i]->state()[word] = states.words[word][i];
            meant[i]->advance(blocks);
        }
    }

    /// Gives the outcome of a lane to the caller and its place to the last one.
    void finish(size_t lane, int error) {
        FileMD5Result result = {};
        result.code = error;
        if (error == 0) {
            const auto& digest = mLanes[lane].state();
            writeHex(digest.data(), sizeof(digest), result.md5);
        }
        logTool(mCaller.enableLog, "computeFileMD5", mLanes[lane].path(), error);
        mCaller.done(mLanes[lane].file(), result);
        std::swap(mLanes[lane], mLanes[--mActive]);
    }

    const Md5Kernels& mKernels;
    const BatchCaller& mCaller;
    std::vector<Lane> mLanes;
    size_t mActive = 0;
};

}  // namespace

void digestInLanes(const Md5Kernels& kernels, const BatchCaller& caller) {
    Batch(kernels, caller).run();
}

}  // namespace android::host
