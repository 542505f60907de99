#include "ruxctl/operation.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <ctime>
#include <future>
#include <sstream>
#include <thread>
#include <utility>

#include "android-base/properties.h"
#include "ruxctl/terminal.h"
#include "ruxctl/units.h"

namespace ruxctl {
namespace {

using android::base::GetProperty;
using android::base::SetProperty;
using Clock = std::chrono::steady_clock;

constexpr char kRunning[] = "ruxctl.operation";  // "PROCESS START NAME"
constexpr auto kTick = std::chrono::milliseconds(100);

/// Makes a call of which nobody has to know why it fails.
bool succeeds(const Client& client, Code code, const std::optional<std::string>& request = {}) try {
    client.call(code, request);
    return true;
} catch (const Failure&) {
    return false;
}

/// Tells whether an operation has been admitted: that sets its stop property to "false", a refusal
/// leaves what stood there. A "true" is not touched, it may be somebody's request to stop.
class Admission {
  public:
    explicit Admission(const Operation& operation) : mOperation(operation) {
        if (mOperation.stopProperty != nullptr && state() != "true") set("asked");
    }
    ~Admission() {
        if (state() == "asked") set("false");
    }
    Admission(const Admission&) = delete;
    Admission& operator=(const Admission&) = delete;

    /// To be called while the answer is awaited: a refusal comes at once.
    void watch() { mIsAdmitted = mIsAdmitted || state() != "asked"; }
    /// Whether the operation was refused, once it has been answered.
    bool wasRefused() const {
        const std::string now = state();
        return now == "asked" || (now == "true" && !mStopped && !mIsAdmitted);
    }
    /// Whether this client or another one has asked for its end.
    bool isStopped() const { return mStopped || (mIsAdmitted && state() == "true"); }
    /// To be said again and again: the request may not have been admitted when it was first.
    void stop(const Client& client) {
        if (mOperation.stopProperty == nullptr) return;
        if (!mStopped && mOperation.stopNote) succeeds(client, *mOperation.stopNote);
        if (state() != "asked") set("true");
        mStopped = true;
    }

  private:
    std::string state() const {
        return mOperation.stopProperty == nullptr ? "" : GetProperty(mOperation.stopProperty, "");
    }
    void set(const char* value) const { SetProperty(mOperation.stopProperty, value); }

    const Operation& mOperation;
    bool mIsAdmitted = false;
    bool mStopped = false;
};

/// Says what this client does, for as long as it lives, unless another one says so already.
class Announcement {
  public:
    explicit Announcement(const char* name) {
        if (runningOperation()) return;
        mText = std::to_string(getpid()) + " " + std::to_string(time(nullptr)) + " " + name;
        SetProperty(kRunning, mText);
    }
    ~Announcement() {
        if (!mText.empty() && GetProperty(kRunning, "") == mText) SetProperty(kRunning, "");
    }
    Announcement(const Announcement&) = delete;
    Announcement& operator=(const Announcement&) = delete;

  private:
    std::string mText;
};

bool waits = false;

/// What would end a running operation.
std::string adviceFor(const std::string& running) {
    for (const auto& [name, word] : {std::pair("a scan", "scan"), std::pair("a listing", "list"),
                                     std::pair("a compression", "compress")}) {
        if (running.starts_with(name)) return std::string("or end it: ruxctl stop ") + word;
    }
    return running.starts_with("a restore") ? "a restore cannot be stopped"
                                            : "or end it: ruxctl stop scan, list or compress";
}

/// Waits for an answer. Throws a Failure when there is none.
void await(std::future<void>& answer, const std::function<void()>& tick) {
    while (answer.wait_for(kTick) == std::future_status::timeout) tick();
    try {
        answer.get();
    } catch (const Failure&) {
        if (Client::connect()) throw;
        throw Failure(
                "the service died while it worked; no content is lost: start it, and run the "
                "same command again",
                kNoService);
    }
}

/// Carries out an operation. Nothing when it was refused.
std::optional<Outcome> attempt(const Client& client, const Operation& operation,
                               const std::string& request,
                               const std::function<void(double seconds)>& tick) {
    const Announcement announcement(operation.name);
    Admission admission(operation);
    Outcome outcome;
    const auto start = Clock::now();
    const auto seconds = [&start] {
        return std::chrono::duration<double>(Clock::now() - start).count();
    };
    auto answer = std::async(std::launch::async, [&] {
        return client.call(operation.code, request,
                           answersText(operation.code) ? &outcome.text : nullptr,
                           answersNumber(operation.code) ? &outcome.number : nullptr);
    });
    await(answer, [&] {
        tick(seconds());
        admission.watch();
        if (Interrupts::any()) admission.stop(client);
    });
    outcome.stopped = admission.isStopped();
    outcome.seconds = seconds();
    if (admission.wasRefused() ||
        (operation.code == kRestore && outcome.number == 0 && isBusy(client)))
        return std::nullopt;
    return outcome;
}

}  // namespace

Outcome carryOut(const Client& client, const Operation& operation, const std::string& request,
                 const std::function<void(double seconds)>& tick) {
    const Interrupts interrupts;
    StatusLine line;
    while (true) {
        if (const auto outcome = attempt(client, operation, request, tick)) {
            waits = true;  // what else the command needs: others may get their turn in between
            return *outcome;
        }
        const std::string running = runningOperation().value_or("another operation");
        if (!waits || Interrupts::any()) {
            throw Failure("the service is busy with " + running + "; wait for its end (--wait), " +
                                  adviceFor(running),
                          Interrupts::any() ? kInterrupted : kBusy);
        }
        line.show("Waiting for the end of " + running);
        std::this_thread::sleep_for(std::chrono::milliseconds(500));
    }
}

void waitWhenBusy() {
    waits = true;
}

bool isBusy(const Client& client) {
    const Admission admission(kScanOperation);
    return succeeds(client, kScan, "[]") && admission.wasRefused();
}

std::optional<std::string> runningOperation() {
    std::istringstream text(GetProperty(kRunning, ""));
    pid_t process = 0;
    time_t start = 0;
    std::string name;
    if (!(text >> process >> start) || !std::getline(text >> std::ws, name)) return std::nullopt;
    if (process <= 0 || process == getpid()) return std::nullopt;
    if (kill(process, 0) != 0 && errno == ESRCH) return std::nullopt;  // it was killed
    const auto seconds = static_cast<double>(std::max<time_t>(time(nullptr) - start, 0));
    return name + " (process " + std::to_string(process) + ", for " + duration(seconds) + ")";
}

}  // namespace ruxctl
