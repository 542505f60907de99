#include "db/files.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>

namespace rux {

std::optional<std::string> readWholeFile(const std::string& path) {
    const int file = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (file < 0) return std::nullopt;
    std::string text;
    char piece[16 << 10];
    while (true) {
        const ssize_t got = read(file, piece, sizeof(piece));
        if (got > 0) text.append(piece, static_cast<size_t>(got));
        if (got == 0 || (got < 0 && errno != EINTR)) break;
    }
    close(file);
    return text;
}

bool writeFully(int file, const std::string& text) {
    for (size_t done = 0; done < text.size();) {
        const ssize_t written = write(file, text.data() + done, text.size() - done);
        if (written < 0 && errno != EINTR) return false;
        if (written > 0) done += static_cast<size_t>(written);
    }
    return true;
}

}  // namespace rux
