// Bytes from a client, in pieces, into a connection of the transport.
// Input: the first byte says how the rest is cut up.

#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>

#include "binder/connection.h"

using android::base::unique_fd;
using android::host::Connection;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size == 0) return 0;
    int ends[2];
    if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK, 0, ends) != 0) abort();
    unique_fd client(ends[0]);
    Connection connection(unique_fd(ends[1]), nullptr, {0, 0});
    const size_t piece = 1 + data[0];
    for (size_t at = 1; at < size; at += piece) {
        if (send(client.get(), data + at, std::min(piece, size - at), MSG_NOSIGNAL) < 0) return 0;
        while (true) {
            const auto progress = connection.read();
            if (connection.bufferedBytes() > 4 * size + 65536) abort();  // more than has come
            if (progress == Connection::Progress::Broken) return 0;
            if (progress == Connection::Progress::Pending) break;
            android::Parcel request;
            const auto header = connection.takeRequest(&request);
            if (request.dataSize() != header.size) abort();
            connection.startReply(0, request);
            if (connection.write() == Connection::Progress::Broken) return 0;
            if (connection.state() != Connection::State::Reading) return 0;  // nobody reads
            char sink[4096];
            while (recv(client.get(), sink, sizeof(sink), 0) > 0) {
            }
        }
    }
    return 0;
}
