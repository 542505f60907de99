#include "db/files.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "android-base/file.h"
#include "android-base/unique_fd.h"

namespace rux {

void TextStamp::add(std::string_view piece) {
    bytes += piece.size();
    // The multiplication by an odd number keeps the order of the words.
    const auto take = [this](uint64_t word) {
        hash = (hash ^ word) * 0x9e3779b97f4a7c15U;
        hash ^= hash >> 32;
    };
    uint64_t word = 0;
    for (; piece.size() >= sizeof(word); piece.remove_prefix(sizeof(word))) {
        memcpy(&word, piece.data(), sizeof(word));
        take(word);
    }
    word = 0;
    memcpy(&word, piece.data(), piece.size());
    take(word);
}

std::optional<std::string> readWholeFile(const std::string& path, int* error) {
    const android::base::unique_fd file(open(path.c_str(), O_RDONLY | O_CLOEXEC));
    if (error != nullptr) *error = file.ok() ? 0 : errno;
    if (!file.ok()) return std::nullopt;
    struct stat st = {};
    std::string text;
    // One read where the file is as long as it says, and one that finds its end.
    size_t room = fstat(file.get(), &st) == 0 ? static_cast<size_t>(st.st_size) : 0;
    for (size_t done = 0;;) {
        if (text.size() == done) text.resize(done + std::max(room, done) + 1);
        const ssize_t got =
                TEMP_FAILURE_RETRY(read(file.get(), text.data() + done, text.size() - done));
        if (got > 0) {
            done += static_cast<size_t>(got);
            continue;
        }
        if (got < 0 && error != nullptr) *error = errno;
        text.resize(done);
        return text;
    }
}

bool readPieces(int file, uint64_t offset, uint64_t bytes, const TakePiece& take) {
    std::string piece;
    while (bytes > 0) {
        piece.resize(std::min<uint64_t>(kPieceBytes, bytes));
        if (!android::base::ReadFullyAtOffset(file, piece.data(), piece.size(),
                                              static_cast<off_t>(offset)))
            return false;
        take(piece);
        offset += piece.size();
        bytes -= piece.size();
    }
    return true;
}

}  // namespace rux
