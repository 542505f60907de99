#include <cctype>
#include <charconv>
#include <iomanip>
#include <iostream>
#include <iterator>
#include <vector>

#include "android-base/properties.h"
#include "ruxctl/client.h"
#include "ruxctl/commands.h"
#include "ruxctl/messages.h"
#include "ruxctl/operation.h"

namespace ruxctl {
namespace {

/// The bytes that pairs of hexadecimal digits spell; white space counts for nothing.
std::vector<uint8_t> fromHex(std::string text) {
    std::erase_if(text, [](unsigned char c) { return isspace(c) != 0; });
    std::vector<uint8_t> bytes(text.size() / 2);
    bool isHex = text.size() % 2 == 0;
    for (size_t i = 0; i < bytes.size() && isHex; ++i) {
        const char* const pair = text.data() + 2 * i;
        isHex = std::from_chars(pair, pair + 2, bytes[i], 16).ptr == pair + 2;
    }
    if (!isHex) throw Failure("BYTES must be pairs of hexadecimal digits", kUsage);
    return bytes;
}

/// "-" stands for standard input.
std::string textOrInput(const std::string& text) {
    if (text != "-") return text;
    return {std::istreambuf_iterator<char>(std::cin), std::istreambuf_iterator<char>()};
}

}  // namespace

int callText(uint32_t code, const std::optional<std::string>& request) {
    const Client client = service();
    std::optional<std::string> argument;
    if (request) argument = textOrInput(*request);
    std::string text;
    int64_t number = 0;
    client.call(code, argument, answersText(code) ? &text : nullptr,
                answersNumber(code) ? &number : nullptr);
    std::cout << text;
    if (answersNumber(code)) std::cout << number << "\n";
    return kDone;
}

int callHex(uint32_t code, const std::string& hex) {
    const std::vector<uint8_t> bytes = fromHex(textOrInput(hex));
    const Client client = service();
    android::Parcel parcel;
    parcel.setData(bytes.data(), bytes.size());
    Answer answer;
    client.send(code, parcel, &answer);
    std::cout << "status " << answer.status << "\n" << std::hex << std::setfill('0');
    for (size_t i = 0; i < answer.reply.dataSize(); ++i)
        std::cout << std::setw(2) << unsigned{answer.reply.data()[i]};
    std::cout << "\n";
    requireSuccess(answer);
    return kDone;
}

int getProperty(const std::string& name) {
    std::cout << android::base::GetProperty(name, "") << "\n";
    return kDone;
}

int setProperty(const std::string& name, const std::string& value) {
    if (android::base::SetProperty(name, value)) return kDone;
    throw Failure("the property " + name +
                  " could not be set: it is too long, or its disk is full");
}

int stop(const std::string& operation) {
    const Operation& stopped = operation == "scan"   ? kScanOperation
                               : operation == "list" ? kListOperation
                                                     : kCompressOperation;
    const Client client = service();
    if (!isBusy(client)) {
        std::cerr << "Nothing is running\n";
        return kDone;
    }
    const std::string running = runningOperation().value_or(stopped.name);
    if (!running.starts_with(stopped.name))
        throw Failure("what runs is " + running + ", not " + stopped.name);
    setProperty(stopped.stopProperty, "true");
    if (stopped.stopNote) client.call(*stopped.stopNote, std::nullopt);
    return kDone;
}

}  // namespace ruxctl
