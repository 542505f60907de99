#include "ruxctl/client.h"

#include <cstring>
#include <fstream>
#include <string>

#include "binder/IServiceManager.h"
#include "binder/Status.h"

namespace ruxctl {
namespace {

using android::OK;
using android::Parcel;
using android::status_t;

/// The platform's own codes by name, errno-based ones in the system's words.
std::string statusText(status_t status) {
    switch (status) {
        case android::UNKNOWN_ERROR:
            return "unknown error";
        case android::BAD_TYPE:
            return "the request is not for this interface";
        case android::FAILED_TRANSACTION:
            return "the request or the reply is too large";
        case android::UNEXPECTED_NULL:
            return "unexpected null";
        case android::DEAD_OBJECT:
            return "the service died or closed the connection";
        case android::UNKNOWN_TRANSACTION:
            return "the service does not know this code";
        default:
            return status < 0 && status > INT32_MIN + 16 ? strerror(-status) : "unknown status";
    }
}

}  // namespace

std::optional<Client> Client::connect() {
    const auto service =
            android::defaultServiceManager()->checkService(android::String16("RuxNativeService"));
    if (service == nullptr) return std::nullopt;
    return Client(service);
}

int64_t Client::counter(const char* file, const std::string& word) const {
    pid_t process = 0;
    if (mService->getDebugPid(&process) != OK) return 0;
    std::ifstream lines("/proc/" + std::to_string(process) + "/" + file);
    int64_t number = 0;
    for (std::string found; lines >> found;) {
        if (found == word && lines >> number) return number;
    }
    return 0;
}

void Client::send(uint32_t code, const Parcel& parcel, Answer* answer) const {
    answer->status = mService->transact(code, parcel, &answer->reply);
}

std::optional<Failure> failureOf(const Answer& answer) {
    if (answer.status != OK) {
        return Failure{kFailed, "status " + std::to_string(answer.status) + ": " +
                                        statusText(answer.status)};
    }
    android::binder::Status status;
    answer.reply.setDataPosition(0);
    if (status.readFromParcel(answer.reply) != OK)
        return Failure{kFailed, "the reply is cut short"};
    if (status.isOk()) return std::nullopt;
    return Failure{kFailed, "exception " + std::to_string(status.exceptionCode()) +
                                    (status.exceptionMessage().size() == 0 ? "" : ": ") +
                                    status.exceptionMessage().c_str()};
}

std::optional<Failure> Client::call(uint32_t code, const std::optional<std::string>& argument,
                                    std::string* text, int64_t* number) const {
    Parcel parcel;
    parcel.writeInterfaceToken(android::String16("tavo.rux.IRux"));
    if (argument && parcel.writeUtf8AsUtf16(*argument) != OK) {
        return Failure{kUsage, "the request is not valid UTF-8"};
    }
    Answer answer;
    send(code, parcel, &answer);
    if (auto failure = failureOf(answer); failure) return failure;
    const bool complete = (text == nullptr || answer.reply.readUtf8FromUtf16(text) == OK) &&
                          (number == nullptr || answer.reply.readInt64(number) == OK);
    if (!complete) return Failure{kFailed, "the reply is cut short"};
    return std::nullopt;
}

}  // namespace ruxctl
