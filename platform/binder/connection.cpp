#include "binder/connection.h"

#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

namespace android::host {
namespace {

bool wouldBlock() {
    return errno == EAGAIN || errno == EWOULDBLOCK;
}

}  // namespace

std::optional<RequestHeader> Connection::header() const {
    RequestHeader header = {};
    if (mBuffer.size() < sizeof(header)) return std::nullopt;
    memcpy(&header, mBuffer.data(), sizeof(header));
    return header;
}

Connection::Progress Connection::read() {
    uint8_t chunk[64 << 10];
    while (true) {
        size_t wanted = sizeof(RequestHeader) - mBuffer.size();
        if (const auto request = header(); request) {
            if (request->magic != kRequestMagic || request->size > kMaxParcelSize) {
                return Progress::Broken;
            }
            wanted = sizeof(RequestHeader) + request->size - mBuffer.size();
            if (wanted == 0) return Progress::Done;
        }
        // Never past the end of this frame: the next one stays in the socket until its turn.
        const ssize_t got = recv(mSocket.get(), chunk, std::min(wanted, sizeof(chunk)), 0);
        if (got > 0) {
            mBuffer.insert(mBuffer.end(), chunk, chunk + got);
        } else if (got < 0 && wouldBlock()) {
            return Progress::Pending;
        } else if (got == 0 || errno != EINTR) {
            return Progress::Broken;
        }
    }
}

RequestHeader Connection::takeRequest(Parcel* parcel) {
    const RequestHeader request = *header();
    parcel->setData(mBuffer.data() + sizeof(request), request.size);
    mBuffer = {};
    mState = State::Serving;
    return request;
}

void Connection::startReply(status_t status, const Parcel& parcel) {
    const bool tooLarge = parcel.dataSize() > kMaxParcelSize;
    const ReplyHeader reply = {kReplyMagic, tooLarge ? 0 : static_cast<uint32_t>(parcel.dataSize()),
                               tooLarge ? FAILED_TRANSACTION : status};
    mBuffer.resize(sizeof(reply) + reply.size);
    memcpy(mBuffer.data(), &reply, sizeof(reply));
    if (reply.size > 0) memcpy(mBuffer.data() + sizeof(reply), parcel.data(), reply.size);
    mSent = 0;
    mState = State::Writing;
}

Connection::Progress Connection::write() {
    while (mSent < mBuffer.size()) {
        const ssize_t sent =
                send(mSocket.get(), mBuffer.data() + mSent, mBuffer.size() - mSent, MSG_NOSIGNAL);
        if (sent >= 0) {
            mSent += static_cast<size_t>(sent);
        } else if (wouldBlock()) {
            return Progress::Pending;
        } else if (errno != EINTR) {
            return Progress::Broken;
        }
    }
    mBuffer = {};
    mState = State::Reading;
    return Progress::Done;
}

}  // namespace android::host
