#include "ruxctl/hex.h"

#include <cctype>

namespace ruxctl {
namespace {

int digitOf(char c) {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return -1;
}

}  // namespace

std::string toHex(const uint8_t* bytes, size_t size) {
    constexpr char kDigits[] = "0123456789abcdef";
    std::string text;
    text.reserve(2 * size);
    for (size_t i = 0; i < size; ++i) {
        text += kDigits[bytes[i] >> 4];
        text += kDigits[bytes[i] & 15];
    }
    return text;
}

std::optional<std::vector<uint8_t>> fromHex(const std::string& text) {
    std::vector<uint8_t> bytes;
    int pending = -1;
    for (const char c : text) {
        if (isspace(static_cast<unsigned char>(c)) != 0) continue;
        const int digit = digitOf(c);
        if (digit < 0) return std::nullopt;
        if (pending < 0) {
            pending = digit;
        } else {
            bytes.push_back(static_cast<uint8_t>(pending << 4 | digit));
            pending = -1;
        }
    }
    if (pending >= 0) return std::nullopt;
    return bytes;
}

}  // namespace ruxctl
