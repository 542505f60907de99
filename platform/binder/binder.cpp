#include "binder/Binder.h"

#include <unistd.h>

#include "binder/IInterface.h"
#include "binder/Parcel.h"

namespace android {

sp<IInterface> IBinder::queryLocalInterface(const String16& /*descriptor*/) {
    return nullptr;
}

status_t IBinder::getDebugPid(pid_t* outPid) {
    *outPid = getpid();
    return OK;
}

const String16& BBinder::getInterfaceDescriptor() const {
    static const String16 none;
    return none;
}

status_t BBinder::transact(uint32_t code, const Parcel& data, Parcel* reply, uint32_t flags) {
    data.setDataPosition(0);
    const status_t status = onTransact(code, data, reply, flags);
    if (reply != nullptr) reply->setDataPosition(0);
    return status;
}

status_t BBinder::onTransact(uint32_t code, const Parcel& /*data*/, Parcel* reply,
                             uint32_t /*flags*/) {
    switch (code) {
        case INTERFACE_TRANSACTION: {
            const String16& descriptor = getInterfaceDescriptor();
            return reply != nullptr ? reply->writeString16(descriptor.c_str(), descriptor.size())
                                    : OK;
        }
        case PING_TRANSACTION:
        case DUMP_TRANSACTION:
        case SHELL_COMMAND_TRANSACTION:
            return OK;
        case SYSPROPS_TRANSACTION:
            return INVALID_OPERATION;
        default:
            return UNKNOWN_TRANSACTION;
    }
}

}  // namespace android
