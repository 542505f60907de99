/// The bytes of a transaction.
///
/// Laid out as on the platform, so that a recorded transaction means the same there and here:
/// everything is little-endian and padded to 4 bytes; a string is its number of UTF-16 code units
/// (-1: null), the units, and a zero unit.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "utils/Errors.h"
#include "utils/String16.h"

namespace android {

class IBinder;
namespace binder {
class Status;
}

class Parcel {
  public:
    Parcel() = default;
    Parcel(const Parcel&) = delete;
    Parcel& operator=(const Parcel&) = delete;

    const uint8_t* data() const { return mData.data(); }
    size_t dataSize() const { return mData.size(); }
    /// Bytes between the read position and the end.
    size_t dataAvail() const { return mData.size() - mPosition; }

    /// Cuts the parcel to `size` bytes, or fills it up with zeros.
    status_t setDataSize(size_t size);
    /// Where the next read or write happens; a position past the end is taken as the end.
    void setDataPosition(size_t position) const;
    /// Replaces the content, and stands at its start.
    status_t setData(const uint8_t* bytes, size_t size);

    status_t writeInterfaceToken(const String16& descriptor);
    /// Reads an interface token and tells whether it is that of `binder`.
    bool checkInterface(IBinder* binder) const;

    status_t writeInt32(int32_t value);
    status_t writeInt64(int64_t value);
    /// `BAD_VALUE` for a text that is not valid UTF-8.
    status_t writeUtf8AsUtf16(const std::string& text);
    /// Without a text, null.
    status_t writeUtf8AsUtf16(const std::optional<std::string>& text) {
        return text ? writeUtf8AsUtf16(*text) : writeInt32(-1);
    }
    status_t writeUtf8AsUtf16(const std::unique_ptr<std::string>& text) {
        return text ? writeUtf8AsUtf16(*text) : writeInt32(-1);
    }
    status_t writeString16(const char16_t* text, size_t length);

    /// `NOT_ENOUGH_DATA`, with nothing read, when the parcel ends too early.
    status_t readInt32(int32_t* value) const;
    status_t readInt64(int64_t* value) const;
    /// `UNEXPECTED_NULL` for a string that is null, of negative length, cut short or without its
    /// zero unit. Lone surrogates stand for no character and are left out.
    status_t readUtf8FromUtf16(std::string* text) const;

    /// Ok when everything has been read, otherwise `EX_BAD_PARCELABLE` with the number of bytes
    /// left.
    binder::Status enforceNoDataAvail() const;

  private:
    status_t writeBytes(const void* bytes, size_t size);
    const char16_t* readString16Inplace(size_t* length) const;

    std::vector<uint8_t> mData;
    mutable size_t mPosition = 0;
};

}  // namespace android
