#include "f2fs_io/resolve.h"

#include <fcntl.h>
#include <linux/limits.h>
#include <linux/openat2.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <utility>

namespace android::host {
namespace {

constexpr int kMaxLinks = 40;

/// One component after the other. A link's text takes the place of its name.
int walk(std::string rest, base::unique_fd* place, LinkMakers* makers) {
    const auto root = [&rest] { return open(rest[0] == '/' ? "/" : ".", O_PATH | O_CLOEXEC); };
    if (rest.empty()) return ENOENT;
    base::unique_fd at(root());
    int links = 0;
    while (at.ok() && !rest.empty()) {
        const size_t start = std::min(rest.find_first_not_of('/'), rest.size());
        const size_t end = std::min(rest.find('/', start), rest.size());
        const std::string name = start < end ? rest.substr(start, end - start) : ".";
        rest.erase(0, end);
        base::unique_fd next(openat(at.get(), name.c_str(), O_PATH | O_NOFOLLOW | O_CLOEXEC));
        struct stat st = {};
        if (!next.ok() || fstat(next.get(), &st) != 0) return errno;
        if (!S_ISLNK(st.st_mode)) {
            at = std::move(next);
            continue;
        }
        char target[PATH_MAX];
        const ssize_t length = readlinkat(next.get(), "", target, sizeof(target));
        if (length <= 0) return length == 0 ? ENOENT : errno;
        if (++links > kMaxLinks) return ELOOP;
        makers->add(st.st_uid);
        rest.insert(0, target, static_cast<size_t>(length));
        if (rest[0] == '/') at.reset(root());
    }
    if (!at.ok()) return errno;
    *place = std::move(at);
    return 0;
}

}  // namespace

void LinkMakers::add(uid_t maker) {
    if (maker != 0 && maker != geteuid()) mOthers.push_back(maker);
}

bool LinkMakers::mayLeadTo(uid_t owner) const {
    return std::all_of(mOthers.begin(), mOthers.end(),
                       [owner](uid_t maker) { return maker == owner; });
}

int resolve(const std::string& path, base::unique_fd* place, LinkMakers* makers) {
    open_how how = {};
    how.flags = O_PATH | O_CLOEXEC;
    how.resolve = RESOLVE_NO_SYMLINKS;
    place->reset(static_cast<int>(syscall(SYS_openat2, AT_FDCWD, path.c_str(), &how, sizeof(how))));
    if (place->ok()) return 0;
    // ENOSYS: an old kernel. EPERM: a filter of calls that does not know this one.
    const bool isTold = errno != ELOOP && errno != ENOSYS && errno != EPERM;
    return isTold ? errno : walk(path, place, makers);
}

std::string ownPathOf(int file) {
    return "/proc/self/fd/" + std::to_string(file);
}

std::string placeOf(int file) {
    char path[PATH_MAX];
    const ssize_t length = readlink(ownPathOf(file).c_str(), path, sizeof(path));
    return {path, static_cast<size_t>(std::max<ssize_t>(0, length))};
}

}  // namespace android::host
