#include "db/journal.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <string_view>
#include <utility>

#include "android-base/file.h"

namespace rux {
namespace {

using android::base::unique_fd;
using android::base::WriteFully;

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
    return fsync(unique_fd(open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC)).get()) == 0;
}

}  // namespace

uint64_t Journal::Header::sum() const {
    TextStamp stamp;
    stamp.add({reinterpret_cast<const char*>(this), offsetof(Header, check)});
    return stamp.hash;
}

Journal::Journal(std::string directory) : mDirectory(std::move(directory)) {
    struct stat st = {};
    if (lstat(path().c_str(), &st) != 0) {
        mState = errno == ENOENT || errno == ENOTDIR ? State::None : State::Unreadable;
        return;
    }
    // A link in its place must not be followed, a pipe not be waited for.
    mFile.reset(open(path().c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
    if (mFile.ok() && fstat(mFile.get(), &st) != 0) mFile.reset();
    if (!isOwn(st, mDirectory)) {
        mState = State::Foreign;
    } else if (!mFile.ok()) {
        mState = State::Unreadable;
    } else {
        errno = 0;
        mState = read() ? State::Whole : errno == 0 ? State::Unfinished : State::Unreadable;
    }
}

bool Journal::read() {
    Header header;
    if (!android::base::ReadFullyAtOffset(mFile.get(), &header, sizeof(header), 0) ||
        header.name != mHeader.name || header.check != header.sum())
        return false;
    mHeader = header;
    for (size_t i = 0; i < header.texts.size(); ++i) {
        TextStamp found;
        readPieces(mFile.get(), offsetOf(i), header.texts[i].bytes,
                   [&found](std::string_view piece) { found.add(piece); });
        if (found != header.texts[i]) return false;
    }
    return true;
}

uint64_t Journal::offsetOf(size_t file) const {
    uint64_t offset = sizeof(Header);
    for (size_t i = 0; i < file; ++i) offset += mHeader.texts[i].bytes;
    return offset;
}

std::string Journal::text(size_t file) const {
    std::string text;
    readPieces(mFile.get(), offsetOf(file), mHeader.texts[file].bytes,
               [&text](std::string_view piece) { text += piece; });
    return text;
}

bool Journal::setDown(const std::array<bool, kDatabaseFiles.size()>& files) {
    mFile.reset(open(path().c_str(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, 0666));
    if (!mFile.ok()) return false;
    mState = State::Whole;  // it must be taken for that, unless it can be removed
    if (write(files) && fdatasync(mFile.get()) == 0 && syncDirectory(mDirectory)) return true;
    drop();
    return false;
}

bool Journal::write(const std::array<bool, kDatabaseFiles.size()>& files) {
    mHeader = {};
    const int journal = mFile.get();
    bool isTaken = WriteFully(journal, &mHeader, sizeof(mHeader));  // to be replaced
    for (size_t i = 0; i < files.size(); ++i) {
        if (!files[i]) continue;
        const unique_fd source(open(pathOf(i).c_str(), O_RDONLY | O_CLOEXEC));
        struct stat st = {};
        if (fstat(source.get(), &st) != 0) return false;
        mHeader.isIn[i] = 1;
        const auto take = [&](std::string_view piece) {
            mHeader.texts[i].add(piece);
            isTaken = isTaken && WriteFully(journal, piece.data(), piece.size());
        };
        isTaken &= readPieces(source.get(), 0, static_cast<uint64_t>(st.st_size), take);
    }
    mHeader.check = mHeader.sum();
    return isTaken && lseek(journal, 0, SEEK_SET) == 0 &&
           WriteFully(journal, &mHeader, sizeof(mHeader));
}

bool Journal::takeBack() {
    for (size_t i = 0; i < kDatabaseFiles.size(); ++i) {
        if (holds(i) && !copyBack(i)) return false;
    }
    return drop();
}

bool Journal::copyBack(size_t file) const {
    const unique_fd target(open(pathOf(file).c_str(), O_WRONLY | O_CLOEXEC));
    if (!target.ok()) return errno == ENOENT;  // somebody has removed it
    const uint64_t bytes = mHeader.texts[file].bytes;
    bool isTaken = true;
    const auto give = [&](std::string_view piece) {
        isTaken = isTaken && WriteFully(target.get(), piece.data(), piece.size());
    };
    return readPieces(mFile.get(), offsetOf(file), bytes, give) && isTaken &&
           ftruncate(target.get(), static_cast<off_t>(bytes)) == 0 && fdatasync(target.get()) == 0;
}

bool Journal::drop() {
    if (unlink(path().c_str()) != 0 || !syncDirectory(mDirectory)) return false;
    mState = State::None;
    return true;
}

}  // namespace rux
