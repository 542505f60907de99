#include "db/space.h"

#include <sys/stat.h>

#include <bit>
#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <system_error>

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

void addFiles(const std::string& directory, FileIds& files) {
    std::error_code none;
    for (const auto& file : std::filesystem::directory_iterator(directory, none)) {
        struct stat st = {};
        if (stat(file.path().c_str(), &st) == 0) files.emplace(st.st_dev, st.st_ino);
    }
}

FileIds databaseFiles() {
    FileIds files;
    std::error_code none;
    addFiles(databaseRoot(), files);
    for (const auto& space : std::filesystem::directory_iterator(databaseRoot(), none))
        addFiles(space.path(), files);
    return files;
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
