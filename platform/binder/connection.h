/// One client's connection, as the transport's I/O thread sees it.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <vector>

#include "android-base/unique_fd.h"
#include "binder/IBinder.h"
#include "binder/Parcel.h"
#include "binder/caller.h"
#include "binder/frame.h"

namespace android::host {

/// A connection reads one request, waits while a pool thread serves it, writes the reply, and reads
/// again. It holds the bytes of one frame at a time, and allocates only for bytes that have come.
class Connection {
  public:
    enum class State { Reading, Serving, Writing };
    enum class Progress { Pending, Done, Broken };

    Connection(base::unique_fd socket, sp<IBinder> target, Caller caller)
          : mSocket(std::move(socket)), mTarget(std::move(target)), mCaller(caller) {}

    int socket() const { return mSocket.get(); }
    const sp<IBinder>& target() const { return mTarget; }
    Caller caller() const { return mCaller; }
    State state() const { return mState; }
    size_t bufferedBytes() const { return mBuffer.capacity(); }

    /// Takes in what has arrived. Done: a whole request is there, for `takeRequest`. Broken: the
    /// peer has gone or sent what is no frame.
    Progress read();
    /// The header of the whole request that `read` reported, and its parcel. The state is Serving.
    RequestHeader takeRequest(Parcel* parcel);

    /// Begins a reply (state Writing), or with nothing to reply goes back to Reading.
    void startReply(status_t status, const Parcel& parcel);
    void skipReply() { mState = State::Reading; }
    /// Sends what the peer takes. Done: the reply is out, and the state Reading again.
    Progress write();

    uint64_t lastActivity = 0;  // set by the transport; orders the idle connections by age

  private:
    std::optional<RequestHeader> header() const;

    base::unique_fd mSocket;
    sp<IBinder> mTarget;
    Caller mCaller;
    State mState = State::Reading;
    std::vector<uint8_t> mBuffer;  // the frame being read or written
    size_t mSent = 0;
};

}  // namespace android::host
