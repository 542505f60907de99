/// The server side of a binder object.
#pragma once

#include "binder/IBinder.h"

namespace android {

class BBinder : public IBinder {
  public:
    const String16& getInterfaceDescriptor() const override;

    /// Hands the request, read from its start, to `onTransact`, and leaves `reply` at its start.
    status_t transact(uint32_t code, const Parcel& data, Parcel* reply, uint32_t flags = 0) final;

  protected:
    ~BBinder() override = default;

    /// Answers one transaction. The default says what interface the object has, and has nothing to
    /// say to a ping, a dump or a shell command; that properties have changed is an
    /// `INVALID_OPERATION`, the rest an `UNKNOWN_TRANSACTION`.
    virtual status_t onTransact(uint32_t code, const Parcel& data, Parcel* reply,
                                uint32_t flags = 0);
};

}  // namespace android
