/// The client's side of the service's interface.
#pragma once

#include <cstdint>
#include <optional>
#include <stdexcept>
#include <string>

#include "binder/IBinder.h"
#include "binder/Parcel.h"

namespace ruxctl {

/// Exit statuses of the program.
enum Exit : int {
    kDone = 0,
    kFailed = 1,
    kUsage = 2,
    kNoService = 3,
    kBusy = 4,          ///< refused, because another operation is running
    kInterrupted = 130  ///< ended early, as Ctrl-C or another client asked
};

/// The service's transactions.
enum Code : uint32_t {
    kScan = 1,
    kList = 2,
    kCompress = 3,
    kRestore = 4,
    kStopScan = 5,
    kSetExceptRules = 6,
    kStopCompress = 7,
};

/// A transaction's outcome.
struct Answer {
    android::status_t status = android::OK;
    android::Parcel reply;
};

/// What went wrong, in words, and the program's exit status for it.
struct Failure : std::runtime_error {
    explicit Failure(const std::string& message, Exit exitStatus = kFailed)
          : std::runtime_error(message), exit(exitStatus) {}
    Exit exit;
};

class Client {
  public:
    /// The running service; nothing when there is none.
    static std::optional<Client> connect();

    /// Bytes of memory that the service holds at the moment (proc(5), VmRSS); 0 when the system
    /// does not say.
    int64_t memory() const { return counter("status", "VmRSS:") * 1024; }

    /// Bytes that the service has read ("rchar:") or written ("wchar:") since its start (proc(5),
    /// io); 0 when the system does not say.
    int64_t bytesMoved(const char* way) const { return counter("io", way); }

    /// Where this program finds the root that the service sees: its unit may hide some of it, and
    /// show some read-only (proc(5), root). Empty, the own one, when the system does not say.
    std::string root() const { return processFile("root"); }

    /// Sends `parcel` as it is, and waits for the answer.
    void send(uint32_t code, const android::Parcel& parcel, Answer* answer) const;

    /// Calls a method with its argument. Fills `text` or `number` when the method has such a
    /// result. Throws a Failure.
    void call(uint32_t code, const std::optional<std::string>& argument,
              std::string* text = nullptr, int64_t* number = nullptr) const;

  private:
    explicit Client(android::sp<android::IBinder> service) : mService(std::move(service)) {}

    /// The path of a file in the service's directory below /proc; empty when the system does not
    /// say which that is.
    std::string processFile(const char* name) const;
    /// What such a file has behind a word.
    int64_t counter(const char* file, const std::string& word) const;

    android::sp<android::IBinder> mService;
};

/// Throws a Failure for an answer that is not a success: a status or an exception. Leaves the reply
/// behind its status.
void requireSuccess(const Answer& answer);

/// Whether `call` with this code brings a text, or a number.
constexpr bool answersText(uint32_t code) {
    return code == kList || code == kCompress;
}
constexpr bool answersNumber(uint32_t code) {
    return code == kRestore;
}

}  // namespace ruxctl
