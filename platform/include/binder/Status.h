/// What a binder method answers besides its out values.
#pragma once

#include <cstdint>

#include "utils/Errors.h"
#include "utils/String8.h"

namespace android {

class Parcel;

namespace binder {

class Status final {
  public:
    enum Exception {
        EX_NONE = 0,
        EX_BAD_PARCELABLE = -2,
        EX_NULL_POINTER = -4,
    };

    static Status ok() { return {}; }
    static Status fromExceptionCode(int32_t exceptionCode);
    static Status fromExceptionCode(int32_t exceptionCode, const String8& message);
    static Status fromExceptionCode(int32_t exceptionCode, const char* message);

    bool isOk() const { return mException == EX_NONE; }
    int32_t exceptionCode() const { return mException; }
    const String8& exceptionMessage() const { return mMessage; }

    /// The exception code and, when that is not 0, the message and a zero (no remote stack trace).
    status_t writeToParcel(Parcel* parcel) const;
    /// The same, in place of whatever `parcel` holds.
    status_t writeOverParcel(Parcel* parcel) const;
    /// The counterpart of `writeToParcel`.
    status_t readFromParcel(const Parcel& parcel);

  private:
    int32_t mException = EX_NONE;
    String8 mMessage;
};

}  // namespace binder
}  // namespace android
