#include "f2fs_io/leased_file.h"

#include <cerrno>

namespace android::host {

int LeasedFile::takeLease() {
    if (const int error = lease.take(file.get()); error != 0) return error;
    if (fstat(file.get(), &status) != 0) return errno;
    return readAttributes(file.get(), status, &attributes);
}

int LeasedFile::compareWithNow() const {
    struct stat now = {};
    Attributes attributesNow;
    if (fstat(file.get(), &now) != 0) return errno;
    if (const int error = readAttributes(file.get(), now, &attributesNow); error != 0) return error;
    return sameContentStamp(status, now) && attributes == attributesNow ? 0 : ESTALE;
}

int LeasedFile::undisturbed() const {
    if (const int error = compareWithNow(); error != 0) return error;
    return isInUse() ? EBUSY : 0;
}

}  // namespace android::host
