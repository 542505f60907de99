#include <json/json.h>

#include <algorithm>
#include <iostream>
#include <map>

#include "ruxctl/commands.h"
#include "ruxctl/database.h"
#include "ruxctl/groups.h"
#include "ruxctl/messages.h"
#include "ruxctl/paths.h"
#include "ruxctl/terminal.h"
#include "ruxctl/units.h"

namespace ruxctl {
namespace {

/// What linking would do in a space, or in all.
struct Sums {
    int64_t groups = 0;
    int64_t links = 0;
    int64_t bytes = 0;
    std::string countedIn = {};  // the space before that counts some of its links

    void add(const Sums& other) {
        groups += other.groups;
        links += other.links;
        bytes += other.bytes;
        if (!other.countedIn.empty()) countedIn = other.countedIn;
    }
    Json::Value value() const {
        Json::Value value(Json::objectValue);
        value["groups"] = static_cast<Json::Int64>(groups);
        value["links"] = static_cast<Json::Int64>(links);
        value["bytes"] = static_cast<Json::Int64>(bytes);
        return value;
    }
};

using SumsBySpace = std::map<std::string, Sums>;

/// What linking would do in each space, by the groups with a path that matches, or by all groups.
SumsBySpace sumsOf(const std::vector<std::string>& spaceIds, const PathPatterns& patterns) {
    SumsBySpace bySpace;
    const auto matches = [&](const Member& member) {
        return patterns.empty() || patterns.match(member.path);
    };
    for (const std::string& spaceId : spaceIds) bySpace[spaceId];
    for (const Group& group : groupsOf(spaceIds, Which::ToCompress)) {
        const int64_t links = group.count(Step::Link);
        if (std::any_of(group.members.begin(), group.members.end(), matches))
            bySpace[group.spaceId].add({links > 0, links, group.reclaimable, group.countedIn});
    }
    return bySpace;
}

Sums totalOf(const SumsBySpace& bySpace) {
    Sums total;
    for (const auto& [spaceId, sums] : bySpace) total.add(sums);
    return total;
}

void printJson(const SumsBySpace& bySpace) {
    Json::Value page(Json::objectValue);
    page["spaces"] = Json::Value(Json::arrayValue);
    for (const auto& [spaceId, sums] : bySpace) {
        Json::Value& value = page["spaces"].append(sums.value());
        value["space"] = spaceId;
    }
    page["total"] = totalOf(bySpace).value();
    std::cout << Json::FastWriter().write(page);
}

void printText(const SumsBySpace& bySpace, bool exact) {
    std::vector<std::vector<std::string>> rows = {{"SPACE", "GROUPS", "LINKS", "RECLAIMABLE"}};
    const auto add = [&](const std::string& name, const Sums& sums) {
        const auto number = [exact](int64_t value) {
            return exact ? std::to_string(value) : grouped(value);
        };
        rows.push_back({name, number(sums.groups), number(sums.links),
                        exact ? number(sums.bytes) : humanBytes(sums.bytes)});
    };
    for (const auto& [spaceId, sums] : bySpace) add(spaceId, sums);
    if (bySpace.size() > 1) add("total", totalOf(bySpace));
    printTable(rows);
    for (const auto& [spaceId, sums] : bySpace) {
        if (!sums.countedIn.empty())
            std::cerr << "Files of " << spaceId << " that are also in " << sums.countedIn
                      << " are counted there\n";
    }
}

}  // namespace

int list(const ListOptions& options) {
    const PathPatterns patterns(options.patterns);
    const std::vector<std::string> chosen = chosenSpaces(options.spaceIds);
    requireSpaces(chosen);
    const SumsBySpace bySpace = sumsOf(chosen, patterns);
    if (options.json) {
        printJson(bySpace);
    } else if (bySpace.empty()) {
        return nothingScanned();
    } else {
        printText(bySpace, options.bytes);
        if (totalOf(bySpace).groups == 0) sayWhatPatternsAre(options.patterns);
        sayWhatIsSetAside(chosen);
    }
    return kDone;
}

}  // namespace ruxctl
