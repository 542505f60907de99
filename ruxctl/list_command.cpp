#include <json/json.h>

#include <algorithm>
#include <iostream>

#include "ruxctl/commands.h"
#include "ruxctl/messages.h"
#include "ruxctl/table.h"
#include "ruxctl/units.h"

namespace ruxctl {
namespace {

Json::Value valueOf(const Listing& listing) {
    Json::Value value(Json::objectValue);
    if (!listing.spaceId.empty()) value["space"] = listing.spaceId;
    value["groups"] = static_cast<Json::Int64>(listing.groups);
    value["files"] = static_cast<Json::Int64>(listing.files);
    value["bytes"] = static_cast<Json::Int64>(listing.bytes);
    return value;
}

}  // namespace

int list(const ListOptions& options) {
    const auto client = Client::connect();
    if (!client) return noService();
    std::vector<Listing> listing;
    const std::vector<std::string> chosen = chosenSpaces(options.spaceIds);
    if (const auto failure = fetchListing(*client, chosen, options.patterns, &listing); failure)
        return fail(*failure);
    for (const std::string& spaceId : options.spaceIds) {
        const auto isIt = [&](const Listing& entry) { return entry.spaceId == spaceId; };
        if (std::none_of(listing.begin(), listing.end(), isIt)) return noSpace(spaceId);
    }
    Listing total;
    for (const Listing& entry : listing) {
        total.groups += entry.groups;
        total.files += entry.files;
        total.bytes += entry.bytes;
    }
    if (options.json) {
        Json::Value page(Json::objectValue);
        page["spaces"] = Json::Value(Json::arrayValue);
        for (const Listing& entry : listing) page["spaces"].append(valueOf(entry));
        page["total"] = valueOf(total);
        std::cout << Json::FastWriter().write(page);
        return kDone;
    }
    if (listing.empty()) {
        std::cout << "nothing has been scanned yet; begin with `ruxctl scan --space NAME DIR`\n";
        return kDone;
    }
    const auto number = [&](int64_t value) {
        return options.bytes ? std::to_string(value) : grouped(value);
    };
    std::vector<std::vector<std::string>> rows = {{"SPACE", "GROUPS", "FILES", "RECLAIMABLE"}};
    const auto add = [&](const std::string& name, const Listing& entry) {
        rows.push_back({name, number(entry.groups), number(entry.files),
                        options.bytes ? number(entry.bytes) : humanBytes(entry.bytes)});
    };
    for (const Listing& entry : listing) add(entry.spaceId, entry);
    if (listing.size() > 1) add("total", total);
    printTable(rows);
    return kDone;
}

}  // namespace ruxctl
