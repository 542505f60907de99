#include "f2fs_io/compare.h"

#include <linux/limits.h>
#include <sys/xattr.h>

#include <cerrno>

namespace android::host {
namespace {

/// Calls `read(buffer, size)` with a small buffer, which the kernel has to make room for as well,
/// and with the largest that can be needed when that is too small. 0 or an errno.
template <typename Read>
int readGrowing(std::string* text, const Read& read) {
    ssize_t size = -1;
    for (const size_t room : {512, XATTR_SIZE_MAX}) {
        text->resize(room);
        if (size = read(text->data(), room); size >= 0 || errno != ERANGE) break;
    }
    if (size < 0) return errno;
    text->resize(static_cast<size_t>(size));
    return 0;
}

}  // namespace

int readXattrs(int file, Xattrs* attributes) {
    attributes->clear();
    std::string names;
    const int listed = readGrowing(&names, [file](char* buffer, size_t size) {
        return flistxattr(file, buffer, size);
    });
    if (listed == ENOTSUP) return 0;
    if (listed != 0) return listed;
    for (size_t start = 0; start < names.size(); start = names.find('\0', start) + 1) {
        const std::string name = names.c_str() + start;
        std::string value;
        const auto read = [file, &name](char* buffer, size_t size) {
            return fgetxattr(file, name.c_str(), buffer, size);
        };
        if (const int error = readGrowing(&value, read); error != 0) return error;
        attributes->emplace(name, value);
    }
    return 0;
}

int writeXattrs(int file, const Xattrs& wanted) {
    Xattrs present;
    if (const int error = readXattrs(file, &present); error != 0) return error;
    // A default access-control list, for one. XFS lists it by two names, which go together.
    for (const auto& [name, value] : present) {
        if (wanted.count(name) == 0 && fremovexattr(file, name.c_str()) != 0 && errno != ENODATA)
            return errno;
    }
    for (const auto& [name, value] : wanted) {
        const auto same = present.find(name);
        if (same != present.end() && same->second == value) continue;
        if (fsetxattr(file, name.c_str(), value.data(), value.size(), 0) != 0) return errno;
    }
    return 0;
}

}  // namespace android::host
