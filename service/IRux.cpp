#include "service/IRux.h"

namespace tavo::rux {

const android::String16 IRux::descriptor(u"tavo.rux.IRux");

const android::String16& IRux::getInterfaceDescriptor() const {
    return descriptor;
}

}  // namespace tavo::rux
