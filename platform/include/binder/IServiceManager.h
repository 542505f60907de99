/// Where services register and clients find them.
#pragma once

#include "binder/IInterface.h"

namespace android {

class IServiceManager : public IInterface {
  public:
    static const int DUMP_FLAG_PRIORITY_DEFAULT = 1 << 3;

    /// A proxy for the service `name`, or null when no process serves it.
    virtual sp<IBinder> checkService(const String16& name) const = 0;

    /// Registers `service` under `name`, reachable as soon as the call returns and served once the
    /// process has pool threads.
    ///
    /// `ALREADY_EXISTS` when a living process holds the name; a name whose process has died is
    /// taken over. Otherwise the negated errno of what went wrong with the socket directory.
    virtual status_t addService(const String16& name, const sp<IBinder>& service,
                                bool allowIsolated = false,
                                int dumpsysFlags = DUMP_FLAG_PRIORITY_DEFAULT) = 0;
};

/// The one service manager of the device; on a host, the directory of sockets of this root.
sp<IServiceManager> defaultServiceManager();

}  // namespace android
