#include "f2fs_io/xattrs.h"

#include <sys/xattr.h>

#include <linux/limits.h>
#include <cerrno>

namespace android::host {
namespace {

/// Calls `read(buffer, size)` with a small buffer first and with the largest that can be needed
/// when that is too small. 0 or an errno.
template <typename Read>
int readGrowing(size_t largest, std::string* text, const Read& read) {
    constexpr size_t kUsual = 512;
    text->resize(kUsual);
    ssize_t size = read(text->data(), text->size());
    if (size < 0 && errno == ERANGE) {
        text->resize(largest);
        size = read(text->data(), text->size());
    }
    if (size < 0) return errno;
    text->resize(static_cast<size_t>(size));
    return 0;
}

}  // namespace

int readXattrs(int file, Xattrs* attributes) {
    attributes->clear();
    std::string names;
    const int listed = readGrowing(XATTR_LIST_MAX, &names, [file](char* buffer, size_t size) {
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
        if (const int error = readGrowing(XATTR_SIZE_MAX, &value, read); error != 0) return error;
        attributes->emplace(name, value);
    }
    return 0;
}

int writeXattrs(int file, const Xattrs& wanted) {
    Xattrs present;
    if (const int error = readXattrs(file, &present); error != 0) return error;
    for (const auto& [name, value] : present) {  // a default access-control list, for one
        if (wanted.count(name) == 0 && fremovexattr(file, name.c_str()) != 0) return errno;
    }
    for (const auto& [name, value] : wanted) {
        const auto same = present.find(name);
        if (same != present.end() && same->second == value) continue;
        if (fsetxattr(file, name.c_str(), value.data(), value.size(), 0) != 0) return errno;
    }
    return 0;
}

}  // namespace android::host
