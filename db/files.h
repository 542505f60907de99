/// Whole files in and out.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>

namespace rux {

/// A string of that many bytes, with its NUL, fills whole pages of memory.
constexpr size_t kPieceBytes = (size_t{64} << 10) - 1;

/// Gets a text in pieces of `kPieceBytes`, and a last one of up to that.
using TakePiece = std::function<void(std::string_view piece)>;

/// Tells one text from another: its length and a hash of it, the same in every build. It is no
/// protection against texts that somebody makes to have the same stamp.
struct TextStamp {
    uint64_t bytes = 0;
    uint64_t hash = 0;
    bool operator==(const TextStamp&) const = default;

    /// Takes in a text piece by piece; the same pieces give the same stamp.
    void add(std::string_view piece);
};

/// The content of the file `path`; nothing when it cannot be opened. A file that fails while it is
/// read, a directory for one, gives what was read before. `error`, if given, gets 0 or the errno.
std::optional<std::string> readWholeFile(const std::string& path, int* error = nullptr);

/// Hands the `bytes` bytes from `offset` on to `take`. False when there are fewer, or one cannot be
/// read, which sets errno; `take` has got those before it.
bool readPieces(int file, uint64_t offset, uint64_t bytes, const TakePiece& take);

}  // namespace rux
