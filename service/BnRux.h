/// The server side of the interface: transactions into method calls.
#pragma once

#include "service/IRux.h"

namespace tavo::rux {

class BnRux : public android::BnInterface<IRux> {
  public:
    BnRux();

    /// Checks and reads the request, calls the method, and writes its status and its result.
    ///
    /// `BAD_TYPE` without a reply for a wrong interface token. A missing string is answered with
    /// the exception `EX_NULL_POINTER`, bytes left behind it with `EX_BAD_PARCELABLE`; the method
    /// is not called then. Codes that the interface has not are left to the platform.
    android::status_t onTransact(uint32_t code, const android::Parcel& data, android::Parcel* reply,
                                 uint32_t flags) override;
};

}  // namespace tavo::rux
