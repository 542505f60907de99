/// Whole files in and out.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

namespace rux {

/// An open file, closed with the object.
class File {
  public:
    /// Takes over what open(2) has returned.
    explicit File(int descriptor = -1) : mDescriptor(descriptor) {}
    File(File&& other) noexcept : mDescriptor(std::exchange(other.mDescriptor, -1)) {}
    File& operator=(File&& other) noexcept {
        std::swap(mDescriptor, other.mDescriptor);
        return *this;
    }
    ~File();

    bool isOpen() const { return mDescriptor >= 0; }
    int get() const { return mDescriptor; }

  private:
    int mDescriptor;
};

/// A string of that many bytes, with its NUL, fills whole pages of memory.
constexpr size_t kPieceBytes = (size_t{64} << 10) - 1;

/// Gets a text in pieces of `kPieceBytes`, and a last one of up to that.
using TakePiece = std::function<void(std::string_view piece)>;

/// Tells one text from another: its length and a hash of it, the same in every build. For texts
/// that chance, not somebody, makes different.
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

/// Hands the `bytes` bytes from `offset` on to `take`. False when there are fewer, or one cannot be
/// read; `take` has got those before it.
bool readPieces(const File& file, uint64_t offset, uint64_t bytes, const TakePiece& take);

/// Writes all of `text`. False, with errno set, when the file does not take it.
bool writeFully(const File& file, std::string_view text);

}  // namespace rux
