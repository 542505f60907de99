/// The client's proxy for a service in another process.
#pragma once

#include <string>

#include "android-base/unique_fd.h"
#include "binder/IBinder.h"

namespace android::host {

/// Each transaction has a connection of its own, so that transactions of several threads run at the
/// same time and nothing is held open between them.
class RemoteBinder : public IBinder {
  public:
    explicit RemoteBinder(std::string serviceName) : mServiceName(std::move(serviceName)) {}

    /// Whether a process serves the name right now.
    bool isAlive() const;

    /// A proxy does not know its service's interface.
    const String16& getInterfaceDescriptor() const override;

    status_t getDebugPid(pid_t* outPid) override;

    /// `DEAD_OBJECT` when nobody answers or the service dies before it does; `FAILED_TRANSACTION`
    /// for a request larger than a frame may be.
    status_t transact(uint32_t code, const Parcel& data, Parcel* reply, uint32_t flags) override;

  private:
    base::unique_fd connect() const;

    const std::string mServiceName;
};

}  // namespace android::host
