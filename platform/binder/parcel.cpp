#include <algorithm>
#include <cstring>
#include <string>

#include "binder/IBinder.h"
#include "binder/Parcel.h"
#include "binder/Status.h"
#include "utils/utf.h"

namespace android {
namespace {

constexpr int32_t kNoWorkSource = -1;
constexpr int32_t kTokenHeader = 0x53595354;

constexpr size_t padded(size_t size) {
    return (size + 3) & ~size_t{3};
}

}  // namespace

status_t Parcel::setDataSize(size_t size) {
    mData.resize(size);
    mPosition = std::min(mPosition, size);
    return OK;
}

void Parcel::setDataPosition(size_t position) const {
    mPosition = std::min(position, mData.size());
}

status_t Parcel::setData(const uint8_t* bytes, size_t size) {
    mData.assign(bytes, bytes + size);
    mPosition = 0;
    return OK;
}

status_t Parcel::writeBytes(const void* bytes, size_t size) {
    const size_t end = mPosition + padded(size);
    if (end > mData.size()) mData.resize(end);
    if (size > 0) memcpy(mData.data() + mPosition, bytes, size);
    std::fill(mData.begin() + static_cast<ptrdiff_t>(mPosition + size),
              mData.begin() + static_cast<ptrdiff_t>(end), 0);
    mPosition = end;
    return OK;
}

status_t Parcel::writeInt32(int32_t value) {
    return writeBytes(&value, sizeof(value));
}

status_t Parcel::writeInt64(int64_t value) {
    return writeBytes(&value, sizeof(value));
}

status_t Parcel::writeString16(const char16_t* text, size_t length) {
    if (length >= INT32_MAX) return BAD_VALUE;
    writeInt32(static_cast<int32_t>(length));
    return writeBytes(text, (length + 1) * sizeof(char16_t));  // the zero unit included
}

status_t Parcel::writeUtf8AsUtf16(const std::string& text) {
    std::u16string units;
    if (!host::utf8ToUtf16(text, &units)) return BAD_VALUE;
    return writeString16(units.c_str(), units.size());
}

status_t Parcel::writeInterfaceToken(const String16& descriptor) {
    constexpr int32_t kStrictModePolicy = 0;
    writeInt32(kStrictModePolicy);
    writeInt32(kNoWorkSource);
    writeInt32(kTokenHeader);
    return writeString16(descriptor.c_str(), descriptor.size());
}

bool Parcel::checkInterface(IBinder* binder) const {
    int32_t strictModePolicy = 0;
    int32_t workSource = 0;
    int32_t header = 0;
    if (readInt32(&strictModePolicy) != OK || readInt32(&workSource) != OK ||
        readInt32(&header) != OK || header != kTokenHeader) {
        return false;
    }
    size_t length = 0;
    const char16_t* text = readString16Inplace(&length);
    const String16& expected = binder->getInterfaceDescriptor();
    return text != nullptr && length == expected.size() &&
           memcmp(text, expected.c_str(), length * sizeof(char16_t)) == 0;
}

status_t Parcel::readInt32(int32_t* value) const {
    if (dataAvail() < sizeof(*value)) return NOT_ENOUGH_DATA;
    memcpy(value, mData.data() + mPosition, sizeof(*value));
    mPosition += sizeof(*value);
    return OK;
}

status_t Parcel::readInt64(int64_t* value) const {
    if (dataAvail() < sizeof(*value)) return NOT_ENOUGH_DATA;
    memcpy(value, mData.data() + mPosition, sizeof(*value));
    mPosition += sizeof(*value);
    return OK;
}

/// The units of the string at the read position, or null for what is not a whole string.
const char16_t* Parcel::readString16Inplace(size_t* length) const {
    int32_t count = 0;
    if (readInt32(&count) != OK || count < 0) return nullptr;
    *length = static_cast<size_t>(count);
    const size_t size = (*length + 1) * sizeof(char16_t);
    if (padded(size) > dataAvail()) return nullptr;
    const uint8_t* const start = mData.data() + mPosition;
    char16_t last = 0;
    memcpy(&last, start + *length * sizeof(char16_t), sizeof(last));
    if (last != 0) return nullptr;
    mPosition += padded(size);
    return reinterpret_cast<const char16_t*>(start);  // every read leaves the position even
}

status_t Parcel::readUtf8FromUtf16(std::string* text) const {
    size_t length = 0;
    const char16_t* units = readString16Inplace(&length);
    if (units == nullptr) return UNEXPECTED_NULL;
    *text = host::utf16ToUtf8({units, length});
    return OK;
}

binder::Status Parcel::enforceNoDataAvail() const {
    if (dataAvail() == 0) return binder::Status::ok();
    const std::string message =
            "Parcel data not fully consumed, unread size: " + std::to_string(dataAvail());
    return binder::Status::fromExceptionCode(binder::Status::EX_BAD_PARCELABLE, message.c_str());
}

}  // namespace android
