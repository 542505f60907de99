/// What both ends of a transaction have in common.
#pragma once

#include <sys/types.h>

#include <cstdint>

#include "utils/Errors.h"
#include "utils/RefBase.h"
#include "utils/String16.h"
#include "utils/StrongPointer.h"

namespace android {

class IInterface;
class Parcel;

/// An object that takes transactions: the service's own, or a client's proxy for it.
class IBinder : public virtual RefBase {
  public:
    enum {
        FIRST_CALL_TRANSACTION = 0x00000001,
        LAST_CALL_TRANSACTION = 0x00ffffff,
        // What every object answers by itself.
        PING_TRANSACTION = 0x5f504e47,           // "_PNG"
        DUMP_TRANSACTION = 0x5f444d50,           // "_DMP"
        SHELL_COMMAND_TRANSACTION = 0x5f434d44,  // "_CMD"
        INTERFACE_TRANSACTION = 0x5f4e5446,      // "_NTF"
        SYSPROPS_TRANSACTION = 0x5f535052,       // "_SPR"
        /// The caller does not wait, and gets no reply.
        FLAG_ONEWAY = 0x00000001,
    };

    /// The interface that this object itself implements, when that is `descriptor`; null otherwise.
    virtual sp<IInterface> queryLocalInterface(const String16& descriptor);

    virtual const String16& getInterfaceDescriptor() const = 0;

    /// The process that the object lives in. `DEAD_OBJECT` when there is none any more.
    virtual status_t getDebugPid(pid_t* outPid);

    /// Carries out transaction `code` with the request `data`; `reply` (may be null) receives what
    /// the object answers. Returns the transaction's status.
    virtual status_t transact(uint32_t code, const Parcel& data, Parcel* reply,
                              uint32_t flags = 0) = 0;

  protected:
    ~IBinder() override = default;
};

}  // namespace android
