#include "db/images.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstddef>
#include <fstream>
#include <iterator>
#include <string_view>
#include <system_error>
#include <thread>
#include <utility>
#include <vector>

#include "control/busy.h"
#include "control/log.h"
#include "control/parallel.h"
#include "db/files.h"
#include "db/json_text.h"
#include "db/json_writer.h"
#include "db/records.h"

/// Has the allocator keep what is freed for what will be asked for next: a scan drops the images of
/// one space and fills the memory with those of the next. Or give it back to the system, at once.
/// An extension: where the platform's has none, the address is null.
[[gnu::weak]] void keepFreedMemory(bool keep);

namespace rux {

Image fileInfoDB;
Image checkNoCompressDB;
Image checkACompressDB;
Image modifyFileInfoDB;

namespace {

/// What belongs to an image on disk.
struct Slot {
    int number;  // as save errors give it
    const char* fileName;
    Image& image;
};

const Slot kSlots[] = {
        {1, "/RUXFileInfo.json", fileInfoDB},
        {2, "/RUXCheckNoCompress.json", checkNoCompressDB},
        {3, "/RUXCheckACompress.json", checkACompressDB},
        {4, "/RUXModifyFileInfo.json", modifyFileInfoDB},
};

TextStamp stampOfText(std::string_view text) {
    TextStamp stamp;
    for (; !text.empty(); text.remove_prefix(std::min(kJsonPiece, text.size())))
        stamp.add(text.substr(0, kJsonPiece));
    return stamp;
}

/// Whether the file holds the text of the image. Reads it only when it is as long as that.
bool holdsTextOf(const Image& image, const std::string& path) {
    struct stat st = {};
    return image.text() && stat(path.c_str(), &st) == 0 &&
           static_cast<uint64_t>(st.st_size) == image.text()->bytes &&
           stampOf(path, kJsonPiece) == image.text();
}

constexpr uint64_t kLongText = uint64_t{1} << 20;  // bytes that are worth a thread

/// Of the images in question, those that hold the texts of their files. Long texts are looked at
/// together.
std::array<bool, std::size(kSlots)> holdTexts(
        const std::string& SpaceID_DBPath, const std::array<bool, std::size(kSlots)>& inQuestion) {
    std::array<bool, std::size(kSlots)> held = {};
    const auto look = [&](size_t i) {
        held[i] = holdsTextOf(kSlots[i].image, SpaceID_DBPath + kSlots[i].fileName);
    };
    std::vector<size_t> longOnes;
    for (size_t i = 0; i < std::size(kSlots); ++i) {
        if (!inQuestion[i]) continue;
        const std::optional<TextStamp>& text = kSlots[i].image.text();
        if (text && text->bytes >= kLongText) {
            longOnes.push_back(i);
        } else {
            look(i);
        }
    }
    inParallel(longOnes.size(), [&](size_t part) { look(longOnes[part]); });
    return held;
}

constexpr uint64_t kMaxKeptBytes = uint64_t{16} << 20;  // of a text, between its two uses

/// A file that is about to be rewritten in place.
class Rewrite {
  public:
    Rewrite(const Slot& slot, const std::string& path)
          : mSlot(slot), mFile(open(path.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0666)) {
        struct stat st = {};
        if (mFile >= 0 && fstat(mFile, &st) == 0) mOldSize = st.st_size;
    }
    Rewrite(Rewrite&& other) noexcept
          : mSlot(other.mSlot),
            mFile(std::exchange(other.mFile, -1)),
            mOldSize(other.mOldSize),
            mText(other.mText),
            mKept(std::move(other.mKept)) {}
    Rewrite& operator=(Rewrite&&) = delete;
    ~Rewrite() {
        if (mFile >= 0) close(mFile);
    }

    int number() const { return mSlot.number; }
    bool isOpen() const { return mFile >= 0; }

    /// Finds out what the text is. Pieces of it are kept as long as they are few.
    void prepare() {
        writeJson(*mSlot.image, [this](std::string_view piece) {
            mText.add(piece);
            if (mText.bytes <= kMaxKeptBytes) {
                mKept.emplace_back(piece);
            } else {
                mKept.clear();
            }
        });
    }

    /// Has the disk set aside what the text needs, where the file system can do that.
    bool reserve() const {
        return size() <= mOldSize || fallocate(mFile, FALLOC_FL_KEEP_SIZE, 0, size()) == 0 ||
               errno == EOPNOTSUPP;
    }

    /// Leaves the file as it was.
    void giveBack() const {
        if (ftruncate(mFile, mOldSize) != 0) return;  // the room stays set aside, for the next time
    }

    /// Writes the text, and says whether the disk has taken it.
    void write() {
        mWritten = true;
        const auto writePiece = [this](std::string_view piece) {
            mWritten = mWritten && writeFully(mFile, piece);
        };
        if (mText.bytes <= kMaxKeptBytes) {
            std::for_each(mKept.begin(), mKept.end(), writePiece);
        } else {
            writeJson(*mSlot.image, writePiece);
        }
        mWritten = mWritten && ftruncate(mFile, size()) == 0;
        if (mWritten) mSlot.image.setWritten(mText);
    }
    bool isWritten() const { return mWritten; }

  private:
    off_t size() const { return static_cast<off_t>(mText.bytes); }

    const Slot& mSlot;
    int mFile;
    off_t mOldSize = 0;
    TextStamp mText;
    std::vector<std::string> mKept;
    bool mWritten = false;
};

constexpr int kIdleSeconds = 10;

std::atomic<uint32_t> uses{0};  // loads and saves
std::atomic<bool> isWatched{false};

/// Empties the images. False when an operation runs.
bool letGo() {
    std::array<Json::Value, std::size(kSlots)> values;
    // They are taken apart after that, for which no operation waits.
    return betweenOperations([&values] {
        for (size_t i = 0; i < std::size(kSlots); ++i) values[i] = kSlots[i].image.release();
    });
}

void letGoWhenIdle() {
    uint32_t seen = uses;
    do {
        if (keepFreedMemory != nullptr) keepFreedMemory(true);
        for (int quiet = 0; quiet < kIdleSeconds || !letGo(); ++quiet) {
            std::this_thread::sleep_for(std::chrono::seconds(1));
            if (const uint32_t now = uses; now != seen) {
                seen = now;
                quiet = 0;
            }
        }
        if (keepFreedMemory != nullptr) keepFreedMemory(false);
        isWatched = false;
    } while (uses != seen && !isWatched.exchange(true));
}

/// Counts a use of the images, and has them let go in time.
void noteUse() {
    ++uses;
    if (isWatched.exchange(true)) return;
    try {
        std::thread(letGoWhenIdle).detach();
    } catch (const std::system_error&) {  // no thread to be had: the next use tries again
        isWatched = false;
    }
}

}  // namespace

Json::Value readFileDBJson(const std::string& path, std::optional<TextStamp>* stamp) {
    Json::Value value;
    if (!pathExists(path)) {
        std::ofstream created(path, std::ios::app);
        if (!created) RUX_LOGE("the file %s creat fail.", path.c_str());
        created << "{}\n";
    }
    const std::optional<std::string> text = readWholeFile(path);
    if (!text) {
        RUX_LOGE("the file %s open fail.", path.c_str());
        return value;
    }
    if (!parseJson(*text, value)) {
        RUX_LOGE("the file %s read fail", path.c_str());
    } else if (stamp != nullptr) {
        *stamp = stampOfText(*text);
    }
    return value;
}

void DBReaderInit(const std::string& SpaceID_DBPath, bool db1, bool db2, bool db3, bool db4) {
    noteUse();
    const std::array selected = {db1, db2, db3, db4};
    const auto held = holdTexts(SpaceID_DBPath, selected);
    for (size_t i = 0; i < std::size(kSlots); ++i) {
        if (!selected[i] || held[i]) continue;
        Image& image = kSlots[i].image;
        const std::string path = SpaceID_DBPath + kSlots[i].fileName;
        image.replace({}, {});  // first, so that two contents are never held at once
        std::optional<TextStamp> text;
        Json::Value value = readFileDBJson(path, &text);
        image.replace(std::move(value), text);
    }
}

void DBWriteUpdate(const std::string& SpaceID_DBPath, bool db1, bool db2, bool db3, bool db4) {
    const std::array selected = {db1, db2, db3, db4};
    noteUse();
    std::array asWritten = selected;
    for (size_t i = 0; i < std::size(kSlots); ++i)
        asWritten[i] = selected[i] && kSlots[i].image.isAsWritten();
    const auto held = holdTexts(SpaceID_DBPath, asWritten);
    std::vector<Rewrite> rewrites;
    for (size_t i = 0; i < std::size(kSlots); ++i) {
        if (!selected[i]) continue;
        const std::string path = SpaceID_DBPath + kSlots[i].fileName;
        Rewrite rewrite(kSlots[i], path);
        if (!rewrite.isOpen()) {
            RUX_LOGE("The DB%d open fail.", rewrite.number());
            continue;
        }
        if (held[i]) continue;
        rewrites.push_back(std::move(rewrite));
    }
    // The files go together: on a full disk none of them changes.
    bool fit = true;
    inParallel(rewrites.size(), [&rewrites](size_t i) { rewrites[i].prepare(); });
    for (const Rewrite& rewrite : rewrites) {
        if (rewrite.reserve()) continue;
        RUX_LOGE("The DB%d write fail.", rewrite.number());
        fit = false;
    }
    if (!fit) {
        for (const Rewrite& rewrite : rewrites) rewrite.giveBack();
        return;
    }
    inParallel(rewrites.size(), [&rewrites](size_t i) { rewrites[i].write(); });
    for (const Rewrite& rewrite : rewrites) {
        if (!rewrite.isWritten()) RUX_LOGE("The DB%d write fail.", rewrite.number());
    }
}

}  // namespace rux
