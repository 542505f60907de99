#include "db/files.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <functional>

namespace rux {
namespace {

/// Reads up to `size` bytes, fewer only at the end of the file or when it fails.
size_t readFully(int file, char* bytes, size_t size, bool* failed) {
    size_t done = 0;
    while (done < size) {
        const ssize_t got = read(file, bytes + done, size - done);
        if (got == 0) break;
        if (got > 0) {
            done += static_cast<size_t>(got);
        } else if (errno != EINTR) {
            *failed = true;
            break;
        }
    }
    return done;
}

}  // namespace

void TextStamp::add(std::string_view piece) {
    bytes += piece.size();
    // The multiplication by an odd number keeps the order of the pieces.
    hash = (hash ^ std::hash<std::string_view>()(piece)) * 0x9e3779b97f4a7c15U;
}

std::optional<std::string> readWholeFile(const std::string& path) {
    const int file = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (file < 0) return std::nullopt;
    struct stat st = {};
    std::string text;
    size_t done = 0;
    bool failed = false;
    // One read where the file is as long as it says, and one that finds its end.
    for (size_t room = fstat(file, &st) == 0 ? static_cast<size_t>(st.st_size) : 0; !failed;) {
        text.resize(done + room + 1);
        const size_t got = readFully(file, text.data() + done, room + 1, &failed);
        done += got;
        if (got <= room) break;
        room = done;
    }
    text.resize(done);
    close(file);
    return text;
}

std::optional<TextStamp> stampOf(const std::string& path, size_t pieceBytes) {
    const int file = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (file < 0) return std::nullopt;
    TextStamp stamp;
    std::string piece(pieceBytes, '\0');
    bool failed = false;
    while (!failed) {
        const size_t got = readFully(file, piece.data(), pieceBytes, &failed);
        if (got > 0) stamp.add({piece.data(), got});
        if (got < pieceBytes) break;
    }
    close(file);
    return failed ? std::nullopt : std::optional(stamp);
}

bool writeFully(int file, std::string_view text) {
    while (!text.empty()) {
        const ssize_t written = write(file, text.data(), text.size());
        if (written < 0 && errno != EINTR) return false;
        if (written > 0) text.remove_prefix(static_cast<size_t>(written));
    }
    return true;
}

}  // namespace rux
