#include "db/files.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

namespace rux {
File::~File() {
    if (mDescriptor >= 0) close(mDescriptor);
}

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

std::optional<std::string> readWholeFile(const std::string& path) {
    const File file(open(path.c_str(), O_RDONLY | O_CLOEXEC));
    if (!file.isOpen()) return std::nullopt;
    struct stat st = {};
    std::string text;
    // One read where the file is as long as it says, and one that finds its end.
    size_t room = fstat(file.get(), &st) == 0 ? static_cast<size_t>(st.st_size) : 0;
    for (size_t done = 0;;) {
        if (text.size() == done) text.resize(done + std::max(room, done) + 1);
        const ssize_t got = read(file.get(), text.data() + done, text.size() - done);
        if (got > 0) {
            done += static_cast<size_t>(got);
        } else if (got == 0 || errno != EINTR) {
            text.resize(done);
            return text;
        }
    }
}

bool readPieces(const File& file, uint64_t offset, uint64_t bytes, const TakePiece& take) {
    std::string piece;
    while (bytes > 0) {
        piece.resize(std::min<uint64_t>(kPieceBytes, bytes));
        for (size_t done = 0; done < piece.size();) {
            const ssize_t got = pread(file.get(), piece.data() + done, piece.size() - done,
                                      static_cast<off_t>(offset + done));
            if (got == 0 || (got < 0 && errno != EINTR)) return false;
            if (got > 0) done += static_cast<size_t>(got);
        }
        take(piece);
        offset += piece.size();
        bytes -= piece.size();
    }
    return true;
}

bool writeFully(const File& file, std::string_view text) {
    while (!text.empty()) {
        const ssize_t written = write(file.get(), text.data(), text.size());
        if (written < 0 && errno != EINTR) return false;
        if (written > 0) text.remove_prefix(static_cast<size_t>(written));
    }
    return true;
}

}  // namespace rux
