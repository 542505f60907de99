/// The bases of an interface and of its server side.
#pragma once

#include "binder/Binder.h"

namespace android {

class IInterface : public virtual RefBase {
  protected:
    // Declared here, because it has the first place in the table of virtual functions.
    ~IInterface() override = default;
    virtual IBinder* onAsBinder() = 0;
};

/// The server side of `INTERFACE`, which has a static `descriptor` and `getInterfaceDescriptor`.
template <typename INTERFACE>
class BnInterface : public INTERFACE, public BBinder {
  public:
    sp<IInterface> queryLocalInterface(const String16& descriptor) override {
        if (descriptor == INTERFACE::descriptor) return sp<IInterface>(this);
        return nullptr;
    }
    const String16& getInterfaceDescriptor() const override {
        return INTERFACE::getInterfaceDescriptor();
    }

  protected:
    IBinder* onAsBinder() override { return this; }
};

}  // namespace android
