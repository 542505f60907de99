#include <fcntl.h>
#include <sys/file.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <cerrno>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <string_view>

#include "android/log.h"
#include "binder/IServiceManager.h"
#include "binder/remote_binder.h"
#include "binder/service_directory.h"
#include "binder/transport.h"
#include "root/run_dir.h"
#include "utils/utf.h"

namespace android {
namespace host {

std::string fileNameOf(const String16& name) {
    std::string text = utf16ToUtf8({name.c_str(), name.size()});
    const bool usable = text.size() <= 64 && text.find('/') == std::string::npos &&
                        text.find('\0') == std::string::npos && text[0] != '.';
    return usable ? text : std::string();
}

sockaddr_un socketAddress(const base::unique_fd& directory, const std::string& name) {
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    snprintf(address.sun_path, sizeof(address.sun_path), "/proc/self/fd/%d/%s.sock",
             directory.get(), name.c_str());
    return address;
}

namespace {

/// Claims `name` for the life of this process, or for that of the descriptor that comes back.
base::unique_fd claim(const base::unique_fd& directory, const std::string& name) {
    base::unique_fd lock(openat(directory.get(), (name + ".lock").c_str(),
                                O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600));
    if (lock.ok() && flock(lock.get(), LOCK_EX | LOCK_NB) != 0) {
        const int error = errno;
        lock.reset();
        errno = error;
    }
    return lock;
}

/// A socket that listens under `name`, in place of what a dead process may have left there.
base::unique_fd listenAt(const base::unique_fd& directory, const std::string& name) {
    base::unique_fd socket(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    if (!socket.ok()) return socket;
    if (unlinkat(directory.get(), (name + ".sock").c_str(), 0) != 0 && errno != ENOENT) return {};
    const sockaddr_un address = socketAddress(directory, name);
    if (bind(socket.get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)) != 0 ||
        listen(socket.get(), SOMAXCONN) != 0) {
        return {};
    }
    return socket;
}

/// Tells who has started this process, and wants to know, that clients are served now:
/// sd_notify(3).
void notifyReady() {
    constexpr std::string_view kReady = "READY=1";
    const char* variable = getenv("NOTIFY_SOCKET");
    const std::string_view name = variable == nullptr ? "" : variable;
    sockaddr_un address = {};
    if (name.empty() || name.size() >= sizeof(address.sun_path)) return;
    address.sun_family = AF_UNIX;
    name.copy(address.sun_path, name.size());
    if (name[0] == '@') address.sun_path[0] = '\0';  // an abstract name, see unix(7)
    const base::unique_fd socket(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    sendto(socket.get(), kReady.data(), kReady.size(), MSG_NOSIGNAL,
           reinterpret_cast<const sockaddr*>(&address),
           offsetof(sockaddr_un, sun_path) + name.size());
}

class ServiceManager : public IServiceManager {
  public:
    status_t addService(const String16& name, const sp<IBinder>& service, bool /*allowIsolated*/,
                        int /*dumpsysFlags*/) override {
        const std::string fileName = fileNameOf(name);
        if (fileName.empty() || service == nullptr) return BAD_VALUE;
        const int run = openPrivateDirectory(runDirectory(), true);
        if (run < 0) {
            __android_log_print(ANDROID_LOG_ERROR, "servicemanager",
                                "%s cannot be made or used: %s", runDirectory().c_str(),
                                strerror(-run));
            return run;
        }
        const base::unique_fd directory(run);

        base::unique_fd lock = claim(directory, fileName);
        if (!lock.ok()) return errno == EWOULDBLOCK ? ALREADY_EXISTS : -errno;
        base::unique_fd socket = listenAt(directory, fileName);
        if (!socket.ok()) return -errno;
        const status_t status = Transport::self().listen(std::move(socket), service);
        if (status != OK) return status;
        lock.release();  // held until the process ends
        notifyReady();
        return OK;
    }

    sp<IBinder> checkService(const String16& name) const override {
        const std::string fileName = fileNameOf(name);
        if (fileName.empty()) return nullptr;
        const sp<RemoteBinder> service = sp<RemoteBinder>::make(fileName);
        if (!service->isAlive()) return nullptr;
        return service;
    }

  protected:
    IBinder* onAsBinder() override { return nullptr; }  // a directory, no object of a process
};

}  // namespace
}  // namespace host

sp<IServiceManager> defaultServiceManager() {
    static const sp<IServiceManager> instance = sp<host::ServiceManager>::make();
    return instance;
}

}  // namespace android
