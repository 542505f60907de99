#include "f2fs_io/xattrs.h"

#include <sys/xattr.h>

#include <linux/limits.h>
#include <algorithm>
#include <cerrno>
#include <cstring>
#include <vector>

namespace android::host {
namespace {

// Room for all names, and for the longest value.
constexpr size_t kMostBytes = std::max(XATTR_LIST_MAX, XATTR_SIZE_MAX);

}  // namespace

int readXattrs(int file, Xattrs* attributes) {
    thread_local std::vector<char> value(kMostBytes);
    thread_local std::vector<char> names(kMostBytes);
    attributes->clear();
    const ssize_t listed = flistxattr(file, names.data(), names.size());
    if (listed < 0) return errno == ENOTSUP ? 0 : errno;
    for (const char* name = names.data(); name < names.data() + listed; name += strlen(name) + 1) {
        const ssize_t size = fgetxattr(file, name, value.data(), value.size());
        if (size < 0) return errno;
        attributes->emplace(name, std::string(value.data(), static_cast<size_t>(size)));
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
