#include "service/BnRux.h"

#include "binder/Parcel.h"
#include "binder/Stability.h"
#include "binder/Trace.h"

namespace tavo::rux {
namespace {

using android::OK;
using android::Parcel;
using android::status_t;
using android::binder::ScopedTrace;
using android::binder::Status;

constexpr uint64_t kTraceTag = 1ULL << 24;  // of interfaces

status_t writeResult(Parcel* reply, const std::string& result) {
    return reply->writeUtf8AsUtf16(result);
}

status_t writeResult(Parcel* reply, int64_t result) {
    return reply->writeInt64(result);
}

/// The string that is the whole argument. When it is not OK, or `status` is not, the method is not
/// to be called.
status_t readArgument(const Parcel& data, std::string* argument, Status* status) {
    const status_t read = data.readUtf8FromUtf16(argument);
    if (read == OK) *status = data.enforceNoDataAvail();
    return read;
}

/// A transaction with a string and no result.
template <typename Method>
status_t transactText(const Parcel& data, Parcel* reply, const Method& method) {
    std::string argument;
    Status status;
    if (const status_t read = readArgument(data, &argument, &status); read != OK) return read;
    if (status.isOk()) status = method(argument);
    return status.writeToParcel(reply);
}

/// A transaction with a string and a result.
template <typename Result, typename Method>
status_t transactResult(const Parcel& data, Parcel* reply, const Method& method) {
    std::string argument;
    Status status;
    Result result = {};
    if (const status_t read = readArgument(data, &argument, &status); read != OK) return read;
    if (status.isOk()) status = method(argument, &result);
    if (const status_t written = status.writeToParcel(reply); written != OK) return written;
    return status.isOk() ? writeResult(reply, result) : OK;
}

}  // namespace

BnRux::BnRux() {
    android::internal::Stability::markCompilationUnit(this);
}

android::status_t BnRux::onTransact(uint32_t code, const android::Parcel& data,
                                    android::Parcel* reply, uint32_t flags) {
    if (code < TRANSACTION_scanDuplicateFiles || code > TRANSACTION_stopCompressDuplicateFiles) {
        return BBinder::onTransact(code, data, reply, flags);
    }
    if (!data.checkInterface(this)) return android::BAD_TYPE;

    status_t result = OK;
    switch (code) {
        case TRANSACTION_scanDuplicateFiles: {
            const ScopedTrace trace(kTraceTag,
                                    "AIDL::cpp::IRux::Rux_scanDuplicateFiles::cppServer");
            result = transactText(data, reply, [this](const std::string& request) {
                return Rux_scanDuplicateFiles(request);
            });
            break;
        }
        case TRANSACTION_getDuplicateFiles: {
            const ScopedTrace trace(kTraceTag, "AIDL::cpp::IRux::Rux_getDuplicateFiles::cppServer");
            result = transactResult<std::string>(data, reply,
                                                 [this](const std::string& request,
                                                        std::string* out) {
                                                     return Rux_getDuplicateFiles(request, out);
                                                 });
            break;
        }
        case TRANSACTION_compressDuplicateFiles: {
            const ScopedTrace trace(kTraceTag,
                                    "AIDL::cpp::IRux::Rux_compressDuplicateFiles::cppServer");
            result =
                    transactResult<std::string>(data, reply,
                                                [this](const std::string& request,
                                                       std::string* out) {
                                                    return Rux_compressDuplicateFiles(request, out);
                                                });
            break;
        }
        case TRANSACTION_restoreDuplicateFiles: {
            const ScopedTrace trace(kTraceTag,
                                    "AIDL::cpp::IRux::Rux_restoreDuplicateFiles::cppServer");
            result = transactResult<int64_t>(data, reply,
                                             [this](const std::string& request, int64_t* out) {
                                                 return Rux_restoreDuplicateFiles(request, out);
                                             });
            break;
        }
        case TRANSACTION_forceStopScanDuplicateFiles: {
            const ScopedTrace trace(kTraceTag,
                                    "AIDL::cpp::IRux::Rux_forceStopScanDuplicateFiles::cppServer");
            result = Rux_forceStopScanDuplicateFiles().writeToParcel(reply);
            break;
        }
        case TRANSACTION_setRUXExceptRules: {
            const ScopedTrace trace(kTraceTag, "AIDL::cpp::IRux::Rux_setRUXExceptRules::cppServer");
            result = transactText(data, reply, [this](const std::string& rules) {
                return Rux_setRUXExceptRules(rules);
            });
            break;
        }
        case TRANSACTION_stopCompressDuplicateFiles: {
            const ScopedTrace trace(kTraceTag,
                                    "AIDL::cpp::IRux::Rux_stopCompressDuplicateFiles::cppServer");
            result = Rux_stopCompressDuplicateFiles().writeToParcel(reply);
            break;
        }
        default:
            break;
    }
    if (result == android::UNEXPECTED_NULL) {
        result = Status::fromExceptionCode(Status::EX_NULL_POINTER).writeOverParcel(reply);
    }
    return result;
}

}  // namespace tavo::rux
