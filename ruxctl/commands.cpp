#include "ruxctl/commands.h"

#include <json/json.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <iostream>
#include <iterator>

#include "android-base/properties.h"
#include "ruxctl/client.h"
#include "ruxctl/hex.h"
#include "ruxctl/paths.h"

namespace ruxctl {
namespace {

int fail(const Failure& failure) {
    std::cerr << "ruxctl: " << failure.message << "\n";
    return failure.exit;
}

int noService() {
    return fail({kNoService, "no service answers; is rux running for this RUX_ROOT?"});
}

/// "-" stands for standard input.
std::string textOrInput(const std::string& text) {
    if (text != "-") return text;
    return {std::istreambuf_iterator<char>(std::cin), std::istreambuf_iterator<char>()};
}

Json::Value arrayOf(const std::vector<std::string>& strings) {
    Json::Value array(Json::arrayValue);
    for (const std::string& string : strings) array.append(string);
    return array;
}

std::string requestOf(const SpaceQuery& query) {
    Json::Value rule(Json::objectValue);
    rule["sid"] = query.spaceId;
    rule["regs"] = arrayOf(query.patterns);
    rule["dirs"] = arrayOf(query.places);
    Json::Value request(Json::arrayValue);
    request.append(rule);
    return Json::FastWriter().write(request);
}

SpaceQuery withAbsolutePlaces(SpaceQuery query) {
    for (std::string& place : query.places) place = absolutePath(place);
    return query;
}

/// Fetches a listing to its last page and gathers the entries of the spaces.
std::optional<Failure> fetchListing(const Client& client, const std::string& request,
                                    Json::Value* entries) {
    while (true) {
        std::string text;
        if (auto failure = client.call(kList, request, &text); failure) return failure;
        if (text == "{}") return Failure{kFailed, "refused: another operation is running"};
        Json::Value page;
        if (!Json::Reader().parse(text, page) || !page.isObject() || !page["isEnd"].isInt()) {
            return Failure{kFailed, "the service could not read the request"};
        }
        for (const std::string& name : page.getMemberNames()) {
            if (page[name].isObject()) (*entries)[name] = page[name];
        }
        if (page["isEnd"].asInt() == 1) return std::nullopt;
    }
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
    return fail({kFailed, "the property " + name + " could not be set"});
}

int scan(const SpaceQuery& query) {
    const SpaceQuery absolute = withAbsolutePlaces(query);
    for (const std::string& place : absolute.places) {
        if (access(place.c_str(), F_OK) != 0)
            return fail({kFailed, place + ": " + strerror(errno)});
    }
    const auto client = Client::connect();
    if (!client) return noService();
    const auto failure = client->call(kScan, requestOf(absolute));
    return failure ? fail(*failure) : kDone;
}

int list(const SpaceQuery& query) {
    const auto client = Client::connect();
    if (!client) return noService();
    const std::string request = requestOf(withAbsolutePlaces(query));
    Json::Value entries(Json::objectValue);
    // The first pages may be left over from another client's listing: then ask once more.
    for (int attempt = 0; attempt < 2 && !entries.isMember(query.spaceId); ++attempt) {
        if (auto failure = fetchListing(*client, request, &entries); failure) return fail(*failure);
    }
    const Json::Value& entry = entries[query.spaceId];
    if (!entry.isObject())
        return fail({kFailed, "no space " + query.spaceId + " has been scanned"});
    std::cout << query.spaceId << ": " << entry["gCount"].asUInt() << " groups, "
              << entry["fileCount"].asInt() << " files, " << entry["size"].asInt64()
              << " bytes to give back\n";
    return kDone;
}

int compress(const std::vector<std::string>& spaceIds) {
    const auto client = Client::connect();
    if (!client) return noService();
    std::string result;
    const auto failure =
            client->call(kCompress, Json::FastWriter().write(arrayOf(spaceIds)), &result);
    if (failure) return fail(*failure);
    const size_t comma = result.find(',');
    if (comma == std::string::npos) return fail({kFailed, "unexpected result: " + result});
    std::cout << result.substr(0, comma) << " groups linked, " << result.substr(comma + 1)
              << " bytes given back\n";
    return kDone;
}

int restore(const SpaceQuery& query) {
    const auto client = Client::connect();
    if (!client) return noService();
    int64_t bytes = 0;
    const auto failure = client->call(kRestore, requestOf(query), nullptr, &bytes);
    if (failure) return fail(*failure);
    std::cout << bytes << " bytes taken up again\n";
    return kDone;
}

int setExceptRules(const std::vector<std::string>& patterns) {
    const auto client = Client::connect();
    if (!client) return noService();
    const auto failure = client->call(kSetExceptRules, Json::FastWriter().write(arrayOf(patterns)));
    return failure ? fail(*failure) : kDone;
}

int stop(const std::string& operation) {
    const char* property = "sys.ruxservice.stop_get_duplicate_files";
    std::optional<Code> note;  // tells the service's log who asked
    if (operation == "scan") {
        property = "sys.ruxservice.stop_scan";
        note = kStopScan;
    } else if (operation == "compress") {
        property = "sys.ruxservice.stop_compress";
        note = kStopCompress;
    }
    const auto client = Client::connect();
    if (!client) return noService();
    if (const int exit = setProperty(property, "true"); exit != kDone) return exit;
    if (!note) return kDone;
    const auto failure = client->call(*note, std::nullopt);
    return failure ? fail(*failure) : kDone;
}

}  // namespace ruxctl
