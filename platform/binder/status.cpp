#include "binder/Status.h"

#include "binder/Parcel.h"

namespace android::binder {

Status Status::fromExceptionCode(int32_t exceptionCode) {
    return fromExceptionCode(exceptionCode, String8());
}

Status Status::fromExceptionCode(int32_t exceptionCode, const String8& message) {
    Status status;
    status.mException = exceptionCode;
    status.mMessage = message;
    return status;
}

Status Status::fromExceptionCode(int32_t exceptionCode, const char* message) {
    return fromExceptionCode(exceptionCode, String8(message));
}

status_t Status::writeToParcel(Parcel* parcel) const {
    if (const status_t written = parcel->writeInt32(mException); written != OK || isOk()) {
        return written;
    }
    if (const status_t written = parcel->writeUtf8AsUtf16(std::string(mMessage.c_str()));
        written != OK)
        return written;
    constexpr int32_t kNoRemoteStackTrace = 0;
    return parcel->writeInt32(kNoRemoteStackTrace);
}

status_t Status::writeOverParcel(Parcel* parcel) const {
    parcel->setDataSize(0);
    parcel->setDataPosition(0);
    return writeToParcel(parcel);
}

status_t Status::readFromParcel(const Parcel& parcel) {
    *this = ok();
    if (const status_t read = parcel.readInt32(&mException); read != OK) return read;
    if (isOk()) return OK;
    std::string message;
    if (const status_t read = parcel.readUtf8FromUtf16(&message); read != OK) return read;
    mMessage = String8(message.c_str());
    int32_t stackTraceSize = 0;
    return parcel.readInt32(&stackTraceSize);
}

}  // namespace android::binder
