/// Whole files in and out.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace rux {

/// Tells one text from another: its length and a hash of it. For texts that chance, not somebody,
/// makes different.
struct TextStamp {
    uint64_t bytes = 0;
    uint64_t hash = 0;
    bool operator==(const TextStamp&) const = default;

    /// Takes in a text piece by piece; the same pieces give the same stamp.
    void add(std::string_view piece);
};

/// The content of the file `path`; nothing when it cannot be opened. A file that fails while it is
/// read, a directory for one, gives what was read before.
std::optional<std::string> readWholeFile(const std::string& path);

/// The stamp of a file's content in pieces of `pieceBytes`; nothing when it cannot be read.
std::optional<TextStamp> stampOf(const std::string& path, size_t pieceBytes);

/// Writes all of `text` to an open file. False, with errno set, when it does not take it.
bool writeFully(int file, std::string_view text);

}  // namespace rux
