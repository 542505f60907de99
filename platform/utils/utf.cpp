#include "utils/utf.h"

#include <cstdint>

#include "utils/String16.h"

namespace android {
namespace host {
namespace {

constexpr bool isHighSurrogate(uint32_t unit) {
    return (unit & 0xfffffc00U) == 0xd800;
}
constexpr bool isLowSurrogate(uint32_t unit) {
    return (unit & 0xfffffc00U) == 0xdc00;
}

/// Takes one character off the front of `text`; -1 when it does not start with a valid one.
int64_t takeCodePoint(std::string_view& text) {
    const auto lead = static_cast<unsigned char>(text[0]);
    size_t length = 1;
    uint32_t point = lead;
    uint32_t lowest = 0;  // of the characters that need so many bytes
    if (lead >= 0xf0 && lead < 0xf8) {
        length = 4, point = lead & 0x07U, lowest = 0x10000;
    } else if (lead >= 0xe0 && lead < 0xf0) {
        length = 3, point = lead & 0x0fU, lowest = 0x800;
    } else if (lead >= 0xc0 && lead < 0xe0) {
        length = 2, point = lead & 0x1fU, lowest = 0x80;
    } else if (lead >= 0x80) {
        return -1;
    }
    if (text.size() < length) return -1;
    for (size_t i = 1; i < length; ++i) {
        const auto byte = static_cast<unsigned char>(text[i]);
        if ((byte & 0xc0U) != 0x80) return -1;
        point = point << 6 | (byte & 0x3fU);
    }
    const bool surrogate = isHighSurrogate(point) || isLowSurrogate(point);
    if (point < lowest || point > 0x10ffff || surrogate) return -1;
    text.remove_prefix(length);
    return point;
}

void appendUtf8(std::string& text, uint32_t point) {
    if (point < 0x80) {
        text += static_cast<char>(point);
        return;
    }
    if (point < 0x800) {
        text += static_cast<char>(0xc0 | point >> 6);
    } else if (point < 0x10000) {
        text += static_cast<char>(0xe0 | point >> 12);
        text += static_cast<char>(0x80 | (point >> 6 & 0x3f));
    } else {
        text += static_cast<char>(0xf0 | point >> 18);
        text += static_cast<char>(0x80 | (point >> 12 & 0x3f));
        text += static_cast<char>(0x80 | (point >> 6 & 0x3f));
    }
    text += static_cast<char>(0x80 | (point & 0x3f));
}

}  // namespace

bool utf8ToUtf16(std::string_view text, std::u16string* units) {
    units->clear();
    units->reserve(text.size());
    while (!text.empty()) {
        const int64_t point = takeCodePoint(text);
        if (point < 0) return false;
        if (point < 0x10000) {
            *units += static_cast<char16_t>(point);
        } else {
            *units += static_cast<char16_t>(0xd800 + ((point - 0x10000) >> 10));
            *units += static_cast<char16_t>(0xdc00 + ((point - 0x10000) & 0x3ff));
        }
    }
    return true;
}

std::string utf16ToUtf8(std::u16string_view units) {
    std::string text;
    text.reserve(units.size());
    for (size_t i = 0; i < units.size(); ++i) {
        const uint32_t unit = units[i];
        if (isHighSurrogate(unit) && i + 1 < units.size() && isLowSurrogate(units[i + 1])) {
            appendUtf8(text, 0x10000 + ((unit - 0xd800) << 10) + (units[++i] - 0xdc00U));
        } else if (!isHighSurrogate(unit) && !isLowSurrogate(unit)) {
            appendUtf8(text, unit);
        }
    }
    return text;
}

}  // namespace host

String16::String16(const char* text) {
    if (!host::utf8ToUtf16(text, &mText)) mText.clear();
}

}  // namespace android
