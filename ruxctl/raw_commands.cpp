#include <iostream>
#include <iterator>

#include "android-base/properties.h"
#include "ruxctl/client.h"
#include "ruxctl/commands.h"
#include "ruxctl/hex.h"
#include "ruxctl/messages.h"
#include "ruxctl/operation.h"

namespace ruxctl {
namespace {

/// "-" stands for standard input.
std::string textOrInput(const std::string& text) {
    if (text != "-") return text;
    return {std::istreambuf_iterator<char>(std::cin), std::istreambuf_iterator<char>()};
}

}  // namespace

int callText(uint32_t code, const std::optional<std::string>& request) {
    const auto client = Client::connect();
    if (!client) return noService();
    std::optional<std::string> argument;
    if (request) argument = textOrInput(*request);
    std::string text;
    int64_t number = 0;
    const auto failure = client->call(code, argument, answersText(code) ? &text : nullptr,
                                      answersNumber(code) ? &number : nullptr);
    if (failure) return fail(*failure);
    std::cout << text;
    if (answersNumber(code)) std::cout << number << "\n";
    return kDone;
}

int callHex(uint32_t code, const std::string& hex) {
    const auto bytes = fromHex(textOrInput(hex));
    if (!bytes) return fail({kUsage, "BYTES must be pairs of hexadecimal digits"});
    const auto client = Client::connect();
    if (!client) return noService();
    android::Parcel parcel;
    parcel.setData(bytes->data(), bytes->size());
    Answer answer;
    client->send(code, parcel, &answer);
    std::cout << "status " << answer.status << "\n"
              << toHex(answer.reply.data(), answer.reply.dataSize()) << "\n"
              << std::flush;
    const auto failure = failureOf(answer);
    return failure ? fail(*failure) : kDone;
}

int getProperty(const std::string& name) {
    std::cout << android::base::GetProperty(name, "") << "\n";
    return kDone;
}

int setProperty(const std::string& name, const std::string& value) {
    if (android::base::SetProperty(name, value)) return kDone;
    return fail({kFailed, "the property " + name +
                                  " could not be set: it is too long, or its disk is full"});
}

int stop(const std::string& operation) {
    const Operation& stopped = operation == "scan"   ? kScanOperation
                               : operation == "list" ? kListOperation
                                                     : kCompressOperation;
    const auto client = Client::connect();
    if (!client) return noService();
    if (!isBusy(*client)) {
        std::cerr << "Nothing is running\n";
        return kDone;
    }
    if (const int exit = setProperty(stopped.stopProperty, "true"); exit != kDone) return exit;
    if (!stopped.stopNote) return kDone;
    const auto failure = client->call(*stopped.stopNote, std::nullopt);
    return failure ? fail(*failure) : kDone;
}

}  // namespace ruxctl
