#include <json/json.h>

#include <algorithm>
#include <ctime>
#include <iostream>

#include "ruxctl/commands.h"
#include "ruxctl/database.h"
#include "ruxctl/messages.h"
#include "ruxctl/operation.h"
#include "ruxctl/terminal.h"
#include "ruxctl/units.h"

namespace ruxctl {
namespace {

std::string ago(time_t then) {
    const auto seconds = static_cast<int64_t>(time(nullptr) - then);
    if (seconds < 60) return "just now";
    if (seconds < 3600) return counted(seconds / 60, "minute") + " ago";
    if (seconds < 86400) return counted(seconds / 3600, "hour") + " ago";
    return counted(seconds / 86400, "day") + " ago";
}

/// What the service does at the moment, or did last.
std::string activity(const Client& client, const std::vector<Space>& spaces) {
    if (isBusy(client)) return "busy with " + runningOperation().value_or("something");
    time_t changed = 0;
    for (const Space& space : spaces) changed = std::max(changed, space.changed);
    return changed > 0 ? "idle, last change " + ago(changed) : "idle";
}

void print(const std::vector<Space>& spaces) {
    std::vector<std::vector<std::string>> rows = {
            {"SPACE", "FILES", "CONTENTS", "LINKED", "DATABASE", "CHANGED", "BELOW"}};
    for (const Space& space : spaces) {
        rows.push_back({space.id, grouped(space.files), grouped(space.toCompress),
                        grouped(space.compressed), humanBytes(space.bytes), ago(space.changed),
                        shown(space.directory)});
    }
    if (spaces.empty()) {
        std::cout << "no spaces; begin with `ruxctl scan --space NAME DIR`\n";
    } else {
        printTable(rows, true);
    }
}

void printJson(const std::vector<Space>& spaces, const std::optional<Client>& client) {
    Json::Value value(Json::objectValue);
    value["running"] = client.has_value();
    value["busy_with"] = client && isBusy(*client) ? runningOperation().value_or("something") : "";
    value["memory_bytes"] = static_cast<Json::Int64>(client ? client->memory() : 0);
    value["spaces"] = Json::Value(Json::arrayValue);
    for (const Space& space : spaces) {
        Json::Value& entry = value["spaces"].append(Json::Value(Json::objectValue));
        entry["space"] = space.id;
        entry["files"] = static_cast<Json::Int64>(space.files);
        entry["contents"] = static_cast<Json::Int64>(space.toCompress);
        entry["linked_groups"] = static_cast<Json::Int64>(space.compressed);
        entry["database_bytes"] = static_cast<Json::Int64>(space.bytes);
        entry["changed"] = static_cast<Json::Int64>(space.changed);
        entry["directory"] = space.directory;
    }
    std::cout << Json::FastWriter().write(value);
}

}  // namespace

int status(bool json) {
    const auto client = Client::connect();
    if (!client) requireRoot();
    std::vector<Space> spaces;
    for (const std::string& spaceId : spaceIds()) spaces.push_back(lookAt(spaceId));
    if (json) {
        printJson(spaces, client);
        return client ? kDone : kNoService;
    }
    std::cout << "service: "
              << (client ? inked(Ink::Good, "running") + ", " + activity(*client, spaces) +
                                   ", holds " + humanBytes(client->memory())
                         : inked(Ink::Bad, "no answer"))
              << "\n";
    print(spaces);
    if (!client) service();  // says why there is none
    return kDone;
}

}  // namespace ruxctl
