#include <json/json.h>

#include <algorithm>
#include <iostream>
#include <map>

#include "ruxctl/commands.h"
#include "ruxctl/database.h"
#include "ruxctl/groups.h"
#include "ruxctl/messages.h"
#include "ruxctl/paths.h"
#include "ruxctl/table.h"
#include "ruxctl/units.h"

namespace ruxctl {
namespace {

/// What linking would do in a space, or in all.
struct Sums {
    int64_t groups = 0;
    int64_t links = 0;
    int64_t bytes = 0;

    void add(const Group& group) {
        ++groups;
        links += group.count(Step::Link);
        bytes += group.reclaimable;
    }
    Json::Value value() const {
        Json::Value value(Json::objectValue);
        value["groups"] = static_cast<Json::Int64>(groups);
        value["links"] = static_cast<Json::Int64>(links);
        value["bytes"] = static_cast<Json::Int64>(bytes);
        return value;
    }
};

}  // namespace

int list(const ListOptions& options) {
    const PathPatterns patterns(options.patterns);
    if (patterns.problem()) return fail({kUsage, *patterns.problem()});
    const std::vector<std::string> chosen = chosenSpaces(options.spaceIds);
    std::map<std::string, Sums> bySpace;
    for (const std::string& spaceId : chosen) {
        if (!exists(spaceId)) return noSpace(spaceId);
        bySpace[spaceId];
    }
    Sums total;
    for (const Group& group : groupsOf(chosen, Which::ToCompress)) {
        const auto matches = [&](const Member& member) {
            return options.patterns.empty() || patterns.match(member.path);
        };
        if (group.count(Step::Link) == 0 ||
            std::none_of(group.members.begin(), group.members.end(), matches)) {
            continue;
        }
        bySpace[group.spaceId].add(group);
        total.add(group);
    }
    if (options.json) {
        Json::Value page(Json::objectValue);
        page["spaces"] = Json::Value(Json::arrayValue);
        for (const auto& [spaceId, sums] : bySpace) {
            Json::Value value = sums.value();
            value["space"] = spaceId;
            page["spaces"].append(std::move(value));
        }
        page["total"] = total.value();
        std::cout << Json::FastWriter().write(page);
        return kDone;
    }
    if (bySpace.empty()) return nothingScanned();
    std::vector<std::vector<std::string>> rows = {{"SPACE", "GROUPS", "LINKS", "RECLAIMABLE"}};
    const auto add = [&](const std::string& name, const Sums& sums) {
        const auto number = [&](int64_t value) {
            return options.bytes ? std::to_string(value) : grouped(value);
        };
        rows.push_back({name, number(sums.groups), number(sums.links),
                        options.bytes ? number(sums.bytes) : humanBytes(sums.bytes)});
    };
    for (const auto& [spaceId, sums] : bySpace) add(spaceId, sums);
    if (bySpace.size() > 1) add("total", total);
    printTable(rows);
    sayWhatIsSetAside(chosen);
    return kDone;
}

}  // namespace ruxctl
