#include "db/space.h"

#include <cstddef>
#include <cstdint>

#include "db/database_root.h"

namespace rux {
namespace {

/// Bytes of the UTF-8 character that starts at `text[at]`; 0 when none does. The second byte's
/// range leaves out overlong forms, surrogates and what lies beyond the last code point.
size_t characterLength(const std::string& text, size_t at) {
    const auto byteAt = [&](size_t i) {
        return static_cast<unsigned char>(i < text.size() ? text[i] : 0);
    };
    const unsigned char lead = byteAt(at);
    size_t length = 0;
    unsigned char lowest = 0x80;
    unsigned char highest = 0xbf;
    if (lead < 0x80) return 1;
    if (lead >= 0xc2 && lead <= 0xdf) length = 2;
    if (lead >= 0xe0 && lead <= 0xef) length = 3;
    if (lead >= 0xf0 && lead <= 0xf4) length = 4;
    if (length == 0) return 0;
    if (lead == 0xe0) lowest = 0xa0;
    if (lead == 0xed) highest = 0x9f;
    if (lead == 0xf0) lowest = 0x90;
    if (lead == 0xf4) highest = 0x8f;
    if (byteAt(at + 1) < lowest || byteAt(at + 1) > highest) return 0;
    for (size_t i = 2; i < length; ++i) {
        if (byteAt(at + i) < 0x80 || byteAt(at + i) > 0xbf) return 0;
    }
    return length;
}

}  // namespace

std::string spaceDirectory(const std::string& spaceId) {
    const bool leadsOut = spaceId == "." || spaceId == ".." ||
                          spaceId.find('/') != std::string::npos ||
                          spaceId.find('\0') != std::string::npos;
    return leadsOut ? std::string() : databaseRoot() + spaceId;
}

std::string exceptRulesPath() {
    return databaseRoot() + "RUXExceptRules.json";
}

bool isStorablePath(const std::string& path) {
    for (size_t at = 0; at < path.size();) {
        const size_t length = characterLength(path, at);
        if (length == 0) return false;
        at += length;
    }
    return true;
}

}  // namespace rux
