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
#include <filesystem>
#include <fstream>
#include <functional>
#include <string_view>
#include <system_error>
#include <thread>
#include <utility>
#include <vector>

#include "android-base/file.h"
#include "android-base/unique_fd.h"
#include "control/busy.h"
#include "control/log.h"
#include "control/parallel.h"
#include "db/files.h"
#include "db/journal.h"
#include "db/json_text.h"
#include "db/json_writer.h"
#include "db/records.h"
#include "platform/include/tavo_f2fs_io_extensions.h"

namespace rux {

Image fileInfoDB;
Image checkNoCompressDB;
Image checkACompressDB;
Image modifyFileInfoDB;

namespace {

using android::base::unique_fd;

const std::array<Image*, kDatabaseFiles.size()> kImages = {&fileInfoDB, &checkNoCompressDB,
                                                           &checkACompressDB, &modifyFileInfoDB};

TextStamp stampOf(std::string_view text) {
    TextStamp stamp;
    for (; !text.empty(); text.remove_prefix(std::min(kPieceBytes, text.size())))
        stamp.add(text.substr(0, kPieceBytes));
    return stamp;
}

/// Whether the file holds that text. Reads it only when it is as long as that.
bool holds(const std::string& path, const TextStamp& text) {
    struct stat st = {};
    if (stat(path.c_str(), &st) != 0 || static_cast<uint64_t>(st.st_size) != text.bytes)
        return false;
    const unique_fd file(open(path.c_str(), O_RDONLY | O_CLOEXEC));
    TextStamp found;
    return readPieces(file.get(), 0, text.bytes,
                      [&](std::string_view piece) { found.add(piece); }) &&
           found == text;
}

constexpr uint64_t kMaxKeptBytes = uint64_t{16} << 20;  // of a text, between its two uses

/// A file that may get the text of its image.
class Rewrite {
  public:
    Rewrite(size_t number, const std::string& SpaceID_DBPath)
          : mNumber(number),
            mPath(SpaceID_DBPath + kDatabaseFiles[number]),
            mFile(open(mPath.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0666)) {
        struct stat st = {};
        if (fstat(mFile.get(), &st) == 0) mOldSize = st.st_size;
    }

    /// Which of the four database files it is: 0 to 3.
    size_t number() const { return mNumber; }
    /// Whether the file may be written.
    bool isOpen() const { return mFile.ok() && !image().isUnread(); }

    /// Finds out what the text is. Pieces of it are kept as long as they are few.
    void prepare() {
        if (image().isAsWritten()) {
            mText = *image().text();
        } else {
            writeJson(*image(), [this](std::string_view piece) {
                mText.add(piece);
                if (mText.bytes <= kMaxKeptBytes) {
                    mKept.emplace_back(piece);
                } else {
                    mKept.clear();
                }
            });
        }
        mIsDone = holds(mPath, mText);
        if (mIsDone) setDone();
    }
    /// Whether the file holds the text.
    bool isDone() const { return mIsDone; }
    void setUndone() { mIsDone = false; }

    /// Has the disk set aside what the text needs, and keeps what is no JSON. 0 or an errno,
    /// EOPNOTSUPP when the file system cannot set anything aside.
    int prepareWriting() const {
        const bool isUndo = &image() == &checkACompressDB;
        if (isUndo && image().isDamaged() && !keepDamaged()) return EIO;
        const auto size = static_cast<off_t>(mText.bytes);
        return size <= mOldSize || fallocate(mFile.get(), FALLOC_FL_KEEP_SIZE, 0, size) == 0
                       ? 0
                       : errno;
    }

    /// Leaves the file as it was.
    void giveBack() const {
        // Where that fails the room stays set aside, for the next time.
        if (ftruncate(mFile.get(), mOldSize) != 0) return;
    }

    /// Writes the text, and has it put on disk.
    void write() {
        mIsDone = true;
        const auto writePiece = [this](std::string_view piece) {
            mIsDone = mIsDone && android::base::WriteFully(mFile.get(), piece.data(), piece.size());
        };
        if (mKept.empty()) {
            writeJson(*image(), writePiece);
        } else {
            std::for_each(mKept.begin(), mKept.end(), writePiece);
        }
        mIsDone = mIsDone && ftruncate(mFile.get(), static_cast<off_t>(mText.bytes)) == 0 &&
                  fdatasync(mFile.get()) == 0;
    }
    /// Notes that the image is what its file holds.
    void setDone() const { image().setWritten(mText); }

  private:
    Image& image() const { return *kImages[mNumber]; }

    bool keepDamaged() const {
        const std::string kept = mPath + kDamagedSuffix;
        std::error_code failure;
        std::filesystem::copy_file(mPath, kept, std::filesystem::copy_options::overwrite_existing,
                                   failure);
        return !failure && fsync(unique_fd(open(kept.c_str(), O_RDONLY | O_CLOEXEC)).get()) == 0;
    }

    size_t mNumber;
    std::string mPath;
    unique_fd mFile;
    off_t mOldSize = 0;
    TextStamp mText;
    std::vector<std::string> mKept;
    bool mIsDone = false;
};

/// 0, EOPNOTSUPP when room can be set aside for some files alone, or the errno of what stands in
/// the way.
int prepareWriting(const std::vector<Rewrite>& rewrites) {
    int error = 0;
    for (const Rewrite& rewrite : rewrites) {
        const int failure = rewrite.prepareWriting();
        if (failure != 0) error = failure;
        if (failure != 0 && failure != EOPNOTSUPP) break;
    }
    return error;
}

/// Gives all the files their texts, or none of them. Where no journal can be had they get them one
/// after the other instead, as long as each can: the undo of links before what it undoes, and a
/// group before the record that says that its file is in one.
void save(const std::string& SpaceID_DBPath, std::vector<Rewrite>& rewrites) {
    std::array<bool, kDatabaseFiles.size()> files = {};
    for (const Rewrite& rewrite : rewrites) files[rewrite.number()] = true;
    const int error = prepareWriting(rewrites);
    Journal journal(SpaceID_DBPath);
    const bool mayWrite = error == 0 || error == EOPNOTSUPP;
    if (mayWrite && journal.setDown(files)) {
        inParallel(rewrites.size(), [&rewrites](size_t i) { rewrites[i].write(); });
        if (std::all_of(rewrites.begin(), rewrites.end(), std::mem_fn(&Rewrite::isDone)) &&
            journal.drop())
            return;
        for (Rewrite& rewrite : rewrites) rewrite.setUndone();
        journal.takeBack();  // what cannot be taken back now, the next load will
    } else if (error == 0 && !journal.isInTheWay()) {
        RUX_LOGE("no journal protects the save of %s.", SpaceID_DBPath.c_str());
        for (auto rewrite = rewrites.rbegin(); rewrite != rewrites.rend(); ++rewrite) {
            rewrite->write();
            if (!rewrite->isDone()) return;
        }
    } else {
        for (const Rewrite& rewrite : rewrites) rewrite.giveBack();
    }
}

/// Takes back a save that was interrupted. False when its journal is there still.
bool takeBackSave(const std::string& SpaceID_DBPath) {
    Journal journal(SpaceID_DBPath);
    const Journal::State found = journal.state();
    if (found == Journal::State::Unfinished) journal.drop();
    if (found == Journal::State::Foreign) {
        RUX_LOGE("what is in the place of the journal of %s is left alone.",
                 SpaceID_DBPath.c_str());
    }
    if (found == Journal::State::Whole && journal.takeBack())
        RUX_LOGD("an interrupted save of %s is taken back.", SpaceID_DBPath.c_str());
    if (!journal.isInTheWay()) return true;
    RUX_LOGE("an interrupted save of %s cannot be taken back.", SpaceID_DBPath.c_str());
    return false;
}

constexpr int kIdleSeconds = 10;

std::atomic<uint32_t> uses{0};  // loads and saves
std::atomic<bool> isWatched{false};

/// Empties the images. False when an operation runs.
bool letGo() {
    std::array<Json::Value, kImages.size()> values;
    // They are taken apart after that, for which no operation waits.
    return betweenOperations([&values] {
        for (size_t i = 0; i < kImages.size(); ++i) values[i] = kImages[i]->release();
    });
}

void watch();

void letGoWhenIdle() {
    if (keepFreedMemory != nullptr) keepFreedMemory(true);
    uint32_t seen = uses;
    int quiet = 0;  // seconds
    bool isLetGo = false;
    while (!isLetGo) {
        std::this_thread::sleep_for(std::chrono::seconds(1));
        const uint32_t now = uses;
        quiet = now == seen ? quiet + 1 : 0;
        seen = now;
        if (quiet >= kIdleSeconds) isLetGo = letGo();
    }
    if (keepFreedMemory != nullptr) keepFreedMemory(false);
    isWatched = false;
    if (uses != seen) watch();  // a use just now has relied on this watch
}

/// Has the images let go when nobody has used them for some time.
void watch() {
    if (isWatched.exchange(true)) return;
    try {
        std::thread(letGoWhenIdle).detach();
    } catch (const std::system_error&) {  // no thread to be had: the next use tries again
        isWatched = false;
    }
}

void noteUse() {
    ++uses;
    watch();
}

}  // namespace

void Image::remove(std::string_view name) {
    if (memberOf(mValue, name) != nullptr) takeMember(change(), name);
}

bool Image::parse(std::string_view text) {
    const bool isJson = parseJson(text, mValue);
    if (isJson) mText = stampOf(text);
    mIsDamaged = !isJson && !text.empty();
    return isJson;
}

void readFileDBJson(const std::string& path, Image& image) {
    image = {};  // first, so that two contents are never held at once
    if (!pathExists(path)) {
        std::ofstream created(path, std::ios::app);
        if (!created) RUX_LOGE("the file %s creat fail.", path.c_str());
        created << "{}\n";
    }
    int error = 0;
    const std::optional<std::string> text = readWholeFile(path, &error);
    if (error != 0 && error != ENOENT) image.setUnread();
    if (!text) {
        RUX_LOGE("the file %s open fail.", path.c_str());
    } else if (!image.parse(*text)) {
        RUX_LOGE("the file %s read fail", path.c_str());
    }
}

void DBReaderInit(const std::string& SpaceID_DBPath, bool db1, bool db2, bool db3, bool db4) {
    noteUse();
    const bool areWhole = takeBackSave(SpaceID_DBPath);
    const std::array selected = {db1, db2, db3, db4};
    for (size_t i = 0; i < kImages.size(); ++i) {
        if (!selected[i]) continue;
        const std::string path = SpaceID_DBPath + kDatabaseFiles[i];
        Image& image = *kImages[i];
        const bool isHeld = image.text() && !image.isUnread() && holds(path, *image.text());
        if (!isHeld) readFileDBJson(path, image);
        if (!areWhole) image.setUnread();
    }
}

void DBWriteUpdate(const std::string& SpaceID_DBPath, bool db1, bool db2, bool db3, bool db4) {
    noteUse();
    const std::array selected = {db1, db2, db3, db4};
    std::vector<Rewrite> rewrites;
    for (size_t i = 0; i < kImages.size(); ++i) {
        if (!selected[i]) continue;
        Rewrite rewrite(i, SpaceID_DBPath);
        if (rewrite.isOpen()) {
            rewrites.push_back(std::move(rewrite));
        } else {
            RUX_LOGE("The DB%zu open fail.", i + 1);
        }
    }
    inParallel(rewrites.size(), [&rewrites](size_t i) { rewrites[i].prepare(); });
    std::erase_if(rewrites, std::mem_fn(&Rewrite::isDone));
    if (rewrites.empty()) return;
    save(SpaceID_DBPath, rewrites);
    for (const Rewrite& rewrite : rewrites) {
        if (rewrite.isDone()) {
            rewrite.setDone();
        } else {
            RUX_LOGE("The DB%zu write fail.", rewrite.number() + 1);
        }
    }
}

}  // namespace rux
