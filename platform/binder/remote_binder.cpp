#include "binder/remote_binder.h"

#include <sys/socket.h>

#include <cerrno>
#include <vector>

#include "binder/Parcel.h"
#include "binder/frame.h"
#include "binder/service_directory.h"
#include "root/run_dir.h"

namespace android::host {
namespace {

bool sendAll(int socket, const void* bytes, size_t size) {
    const auto* next = static_cast<const uint8_t*>(bytes);
    while (size > 0) {
        const ssize_t sent = send(socket, next, size, MSG_NOSIGNAL);
        if (sent < 0 && errno == EINTR) continue;
        if (sent <= 0) return false;
        next += sent;
        size -= static_cast<size_t>(sent);
    }
    return true;
}

bool receiveAll(int socket, void* bytes, size_t size) {
    auto* next = static_cast<uint8_t*>(bytes);
    while (size > 0) {
        const ssize_t got = recv(socket, next, size, 0);
        if (got < 0 && errno == EINTR) continue;
        if (got <= 0) return false;
        next += got;
        size -= static_cast<size_t>(got);
    }
    return true;
}

}  // namespace

const String16& RemoteBinder::getInterfaceDescriptor() const {
    static const String16 unknown;
    return unknown;
}

base::unique_fd RemoteBinder::connect() const {
    const base::unique_fd directory(openPrivateDirectory(runDirectory(), false));
    base::unique_fd socket(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    if (!directory.ok() || !socket.ok()) return {};
    const sockaddr_un address = socketAddress(directory, mServiceName);
    if (::connect(socket.get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)) !=
        0) {
        return {};
    }
    return socket;
}

bool RemoteBinder::isAlive() const {
    return connect().ok();
}

status_t RemoteBinder::getDebugPid(pid_t* outPid) {
    const base::unique_fd socket = connect();
    ucred peer = {};
    socklen_t size = sizeof(peer);
    if (getsockopt(socket.get(), SOL_SOCKET, SO_PEERCRED, &peer, &size) != 0) return DEAD_OBJECT;
    *outPid = peer.pid;
    return OK;
}

status_t RemoteBinder::transact(uint32_t code, const Parcel& data, Parcel* reply, uint32_t flags) {
    if (data.dataSize() > kMaxParcelSize) return FAILED_TRANSACTION;
    const base::unique_fd socket = connect();
    if (!socket.ok()) return DEAD_OBJECT;

    const RequestHeader request = {kRequestMagic, static_cast<uint32_t>(data.dataSize()), code,
                                   flags};
    if (!sendAll(socket.get(), &request, sizeof(request)) ||
        !sendAll(socket.get(), data.data(), data.dataSize())) {
        return DEAD_OBJECT;
    }
    if ((flags & FLAG_ONEWAY) != 0) return OK;

    ReplyHeader header = {};
    if (!receiveAll(socket.get(), &header, sizeof(header))) return DEAD_OBJECT;
    if (header.magic != kReplyMagic || header.size > kMaxParcelSize) return FAILED_TRANSACTION;
    std::vector<uint8_t> parcel(header.size);
    if (!receiveAll(socket.get(), parcel.data(), parcel.size())) return DEAD_OBJECT;
    if (reply != nullptr) reply->setData(parcel.data(), parcel.size());
    return header.status;
}

}  // namespace android::host
