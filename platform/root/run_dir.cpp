#include "root/run_dir.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>

namespace android::host {
namespace {

/// Takes the standard descriptors that the program was started without. Else the next file that it
/// opens, the properties' for one, would get what is printed or logged. Writing to these fails.
[[gnu::constructor]] void takeStandardDescriptors() {
    int file = 0;
    while (file >= 0 && file <= STDERR_FILENO) file = open("/dev/null", O_RDONLY);
    if (file > STDERR_FILENO) close(file);
}

}  // namespace

std::string rootPrefix() {
    const char* value = getenv("RUX_ROOT");
    std::string root = value != nullptr ? value : RUX_DEFAULT_ROOT;
    while (!root.empty() && root.back() == '/') root.pop_back();
    return root;
}

std::string runDirectory() {
    return rootPrefix() + "/run/rux";
}

int openPrivateDirectory(const std::string& path, bool create) {
    if (create) {
        mkdir(path.substr(0, path.rfind('/')).c_str(), 0755);  // a failure shows in the next step
        if (mkdir(path.c_str(), 0700) != 0 && errno != EEXIST) return -errno;
    }
    const int fd = open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (fd < 0) return -errno;
    struct stat st = {};
    const uid_t user = geteuid();  // root may visit any user's
    const bool trusted = fstat(fd, &st) == 0 && (st.st_mode & 077) == 0 &&
                         (user == 0 || st.st_uid == user || st.st_uid == 0);
    if (trusted) return fd;
    close(fd);
    return -EPERM;
}

}  // namespace android::host
