#include "ruxctl/messages.h"

#include <algorithm>
#include <cstdlib>
#include <iostream>
#include <map>

#include "ruxctl/database.h"
#include "ruxctl/json.h"
#include "ruxctl/operation.h"

namespace ruxctl {
namespace {

Json::Value arrayOf(const std::vector<std::string>& strings) {
    Json::Value array(Json::arrayValue);
    for (const std::string& string : strings) array.append(string);
    return array;
}

Json::Value ruleOf(const SpaceQuery& query) {
    Json::Value rule(Json::objectValue);
    rule["sid"] = query.spaceId;
    rule["regs"] = arrayOf(query.patterns);
    rule["dirs"] = arrayOf(query.places);
    return rule;
}

}  // namespace

int fail(const Failure& failure) {
    std::cout << std::flush;
    std::cerr << "ruxctl: " << failure.message << "\n";
    return failure.exit;
}

int noService() {
    const char* root = getenv("RUX_ROOT");
    const std::string where = root != nullptr && *root != '\0'
                                      ? std::string(" for RUX_ROOT=") + root
                                      : " (RUX_ROOT is not set)";
    return fail({kNoService, "no service answers" + where +
                                     "; start it with `rux &`, or `systemctl start rux` where it "
                                     "is installed"});
}

int noSpace(const std::string& spaceId) {
    return fail({kFailed, "no space " + spaceId +
                                  " has been scanned; scan one with `ruxctl scan --space " +
                                  spaceId + " DIR`, see them all with `ruxctl status`"});
}

std::string arrayText(const std::vector<std::string>& strings) {
    return Json::FastWriter().write(arrayOf(strings));
}

std::string ruleText(const SpaceQuery& query) {
    Json::Value request(Json::arrayValue);
    request.append(ruleOf(query));
    return Json::FastWriter().write(request);
}

std::vector<std::string> chosenSpaces(const std::vector<std::string>& chosen) {
    return chosen.empty() ? spaceIds() : chosen;
}

std::optional<Failure> fetchListing(const Client& client, const std::vector<std::string>& spaceIds,
                                    const std::vector<std::string>& patterns,
                                    std::vector<Listing>* listing) {
    Json::Value request(Json::arrayValue);
    for (const std::string& spaceId : spaceIds) request.append(ruleOf({spaceId, patterns, {}}));
    const std::string text = Json::FastWriter().write(request);
    std::map<std::string, Json::Value> entries;
    const auto isComplete = [&] {
        return std::all_of(spaceIds.begin(), spaceIds.end(), [&](const std::string& spaceId) {
            return entries.count(spaceId) != 0 || !exists(spaceId);
        });
    };
    // The first pages may be left over from another client's listing: then ask once more.
    for (int attempt = 0; attempt < 2 && !isComplete(); ++attempt) {
        for (bool isEnd = false; !isEnd;) {
            const Outcome outcome = carryOut(client, kListOperation, text, [](double) {});
            if (outcome.failure) return outcome.failure;
            Json::Value page;
            if (!Json::Reader().parse(outcome.text, page) || !page.isObject() ||
                !page["isEnd"].isInt()) {
                return Failure{kFailed, "the service could not read the request"};
            }
            for (const std::string& name : page.getMemberNames()) {
                if (page[name].isObject()) entries[name] = page[name];
            }
            isEnd = page["isEnd"].asInt() == 1;
            if (outcome.stopped) return Failure{kInterrupted, "the listing was stopped"};
        }
    }
    for (const std::string& spaceId : spaceIds) {
        const auto found = entries.find(spaceId);
        if (found == entries.end()) continue;
        listing->push_back({spaceId, numberOf(found->second, "gCount"),
                            numberOf(found->second, "fileCount"), numberOf(found->second, "size")});
    }
    return std::nullopt;
}

}  // namespace ruxctl
