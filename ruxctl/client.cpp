#include "ruxctl/client.h"

#include <cstring>
#include <fstream>
#include <map>

#include "binder/IServiceManager.h"
#include "binder/Status.h"

namespace ruxctl {
namespace {

using android::OK;
using android::Parcel;
using android::status_t;

/// The platform's own codes by name, errno-based ones in the system's words.
std::string statusText(status_t status) {
    static const std::map<status_t, const char*> kTexts =
            {{android::UNKNOWN_ERROR, "unknown error"},
             {android::BAD_TYPE, "the request is not for this interface"},
             {android::FAILED_TRANSACTION, "the request or the reply is too large"},
             {android::UNEXPECTED_NULL, "unexpected null"},
             {android::DEAD_OBJECT, "the service died or closed the connection"},
             {android::UNKNOWN_TRANSACTION, "the service does not know this code"}};
    if (const auto found = kTexts.find(status); found != kTexts.end()) return found->second;
    return status < 0 && status > INT32_MIN + 16 ? strerror(-status) : "unknown status";
}

}  // namespace

std::optional<Client> Client::connect() {
    const auto service =
            android::defaultServiceManager()->checkService(android::String16("RuxNativeService"));
    if (service == nullptr) return std::nullopt;
    return Client(service);
}

std::string Client::processFile(const char* name) const {
    pid_t process = 0;
    const bool isKnown = mService->getDebugPid(&process) == OK && process > 0;
    return isKnown ? "/proc/" + std::to_string(process) + "/" + name : "";
}

int64_t Client::counter(const char* file, const std::string& word) const {
    std::ifstream lines(processFile(file));
    int64_t number = 0;
    for (std::string found; lines >> found;) {
        if (found == word && lines >> number) return number;
    }
    return 0;
}

void Client::send(uint32_t code, const Parcel& parcel, Answer* answer) const {
    answer->status = mService->transact(code, parcel, &answer->reply);
}

void requireSuccess(const Answer& answer) {
    if (answer.status != OK) {
        throw Failure("status " + std::to_string(answer.status) + ": " + statusText(answer.status));
    }
    android::binder::Status status;
    answer.reply.setDataPosition(0);
    if (status.readFromParcel(answer.reply) != OK) throw Failure("the reply is cut short");
    if (status.isOk()) return;
    throw Failure("exception " + std::to_string(status.exceptionCode()) +
                  (status.exceptionMessage().size() == 0 ? "" : ": ") +
                  status.exceptionMessage().c_str());
}

void Client::call(uint32_t code, const std::optional<std::string>& argument, std::string* text,
                  int64_t* number) const {
    Parcel parcel;
    parcel.writeInterfaceToken(android::String16("tavo.rux.IRux"));
    if (argument && parcel.writeUtf8AsUtf16(*argument) != OK)
        throw Failure("the request is not valid UTF-8", kUsage);
    Answer answer;
    send(code, parcel, &answer);
    requireSuccess(answer);
    const bool complete = (text == nullptr || answer.reply.readUtf8FromUtf16(text) == OK) &&
                          (number == nullptr || answer.reply.readInt64(number) == OK);
    if (!complete) throw Failure("the reply is cut short");
}

}  // namespace ruxctl
