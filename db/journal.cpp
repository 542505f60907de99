#include "db/journal.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string_view>
#include <utility>

namespace rux {
namespace {

/// Whether the journal is this service's own: that of its user, or of the user whose directory it
/// lies in.
bool isOwn(const struct stat& st, const std::string& directory) {
    struct stat parent = {};
    return S_ISREG(st.st_mode) &&
           (st.st_uid == geteuid() ||
            (stat(directory.c_str(), &parent) == 0 && st.st_uid == parent.st_uid));
}

/// Whether what has happened to the names in a directory is on disk.
bool syncDirectory(const std::string& path) {
    return fsync(File(open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC)).get()) == 0;
}

}  // namespace

uint64_t Journal::Header::sum() const {
    TextStamp stamp;
    stamp.add({reinterpret_cast<const char*>(this), offsetof(Header, check)});
    return stamp.hash;
}

Journal::Journal(std::string directory) : mDirectory(std::move(directory)) {
    // Neither a link nor a pipe may lead or hold it anywhere.
    mFile = File(open(path().c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
    struct stat st = {};
    if (fstat(mFile.get(), &st) != 0 || !isOwn(st, mDirectory)) {
        mState = lstat(path().c_str(), &st) == 0 ? State::Foreign : State::None;
        return;
    }
    mState = State::Unfinished;
    Header header;
    if (pread(mFile.get(), &header, sizeof(header), 0) != sizeof(header) ||
        header.name != mHeader.name || header.check != header.sum())
        return;
    mHeader = header;
    for (size_t i = 0; i < header.texts.size(); ++i) {
        TextStamp found;
        readPieces(mFile, offsetOf(i), header.texts[i].bytes,
                   [&found](std::string_view piece) { found.add(piece); });
        if (found != header.texts[i]) return;
    }
    mState = State::Whole;
}

uint64_t Journal::offsetOf(size_t file) const {
    uint64_t offset = sizeof(Header);
    for (size_t i = 0; i < file; ++i) offset += mHeader.texts[i].bytes;
    return offset;
}

std::string Journal::text(size_t file) const {
    std::string text;
    readPieces(mFile, offsetOf(file), mHeader.texts[file].bytes,
               [&text](std::string_view piece) { text += piece; });
    return text;
}

bool Journal::setDown(const std::array<bool, kDatabaseFiles.size()>& files) {
    mFile = File(open(path().c_str(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, 0666));
    if (!mFile.isOpen()) return false;
    mState = State::Unfinished;
    if (write(files) && fdatasync(mFile.get()) == 0 && syncDirectory(mDirectory)) {
        mState = State::Whole;
        return true;
    }
    drop();
    return false;
}

bool Journal::write(const std::array<bool, kDatabaseFiles.size()>& files) {
    mHeader = {};
    const auto header = [this] {
        return std::string_view(reinterpret_cast<const char*>(&mHeader), sizeof(mHeader));
    };
    bool isTaken = writeFully(mFile, header());  // to be replaced
    for (size_t i = 0; i < files.size(); ++i) {
        if (!files[i]) continue;
        const File source(open(pathOf(i).c_str(), O_RDONLY | O_CLOEXEC));
        struct stat st = {};
        if (fstat(source.get(), &st) != 0) return false;
        mHeader.isIn[i] = 1;
        isTaken &= readPieces(source, 0, static_cast<uint64_t>(st.st_size),
                              [&](std::string_view piece) {
                                  mHeader.texts[i].add(piece);
                                  isTaken = isTaken && writeFully(mFile, piece);
                              });
    }
    mHeader.check = mHeader.sum();
    return isTaken && lseek(mFile.get(), 0, SEEK_SET) == 0 && writeFully(mFile, header());
}

bool Journal::takeBack() {
    for (size_t i = 0; i < kDatabaseFiles.size(); ++i) {
        if (holds(i) && !copyBack(i)) return false;
    }
    return drop();
}

bool Journal::copyBack(size_t file) const {
    const File target(open(pathOf(file).c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0666));
    const uint64_t bytes = mHeader.texts[file].bytes;
    bool isTaken = target.isOpen();
    const bool isRead = readPieces(mFile, offsetOf(file), bytes, [&](std::string_view piece) {
        isTaken = isTaken && writeFully(target, piece);
    });
    return isRead && isTaken && ftruncate(target.get(), static_cast<off_t>(bytes)) == 0 &&
           fdatasync(target.get()) == 0;
}

bool Journal::drop() {
    if (unlink(path().c_str()) != 0 || !syncDirectory(mDirectory)) return false;
    mState = State::None;
    return true;
}

}  // namespace rux
