#include "db/space.h"

#include <bit>
#include <cstddef>
#include <cstdint>

#include "db/database_root.h"

namespace rux {

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
    constexpr uint32_t kLeast[] = {0, 0, 0x80, 0x800, 0x10000};  // code by bytes
    for (size_t at = 0; at < path.size();) {
        const auto lead = static_cast<unsigned char>(path[at++]);
        const auto length = static_cast<size_t>(std::countl_one(lead));  // of ASCII 0
        if (length == 1 || length > 4) return false;
        uint32_t code = lead & (0x7fU >> length);
        for (size_t i = 1; i < length; ++i, ++at) {
            const auto byte = static_cast<unsigned char>(path[at]);  // a NUL at the end
            if ((byte & 0xc0) != 0x80) return false;
            code = code << 6 | (byte & 0x3f);
        }
        const bool isSurrogate = code >= 0xd800 && code <= 0xdfff;
        if (code < kLeast[length] || code > 0x10ffff || isSurrogate) return false;
    }
    return true;
}

}  // namespace rux
