#include <json/json.h>

#include <algorithm>
#include <iostream>

#include "ruxctl/commands.h"
#include "ruxctl/database.h"
#include "ruxctl/groups.h"
#include "ruxctl/messages.h"
#include "ruxctl/terminal.h"
#include "ruxctl/units.h"

namespace ruxctl {
namespace {

void printText(const Group& group) {
    constexpr Ink kInks[] = {Ink::Bold, Ink::Good, Ink::Warning, Ink::Bad};  // by state
    std::string heading = counted(group.files, "file") + " of " + humanBytes(group.fileBytes);
    if (group.reclaimable > 0) heading += ", " + humanBytes(group.reclaimable) + " to give back";
    if (group.given > 0) heading += ", " + humanBytes(group.given) + " given back";
    std::cout << inked(Ink::Bold, heading) << "  "
              << inked(Ink::Faint, group.spaceId + " " + group.digest) << "\n";
    for (const Member& member : group.members) {
        std::string state = nameOf(member.state);
        state.resize(8, ' ');
        std::cout << "  " << inked(kInks[static_cast<size_t>(member.state)], state) << " "
                  << shown(member.path) << "\n";
    }
}

Json::Value valueOf(const Group& group) {
    Json::Value value(Json::objectValue);
    value["space"] = group.spaceId;
    value["digest"] = group.digest;
    value["file_bytes"] = static_cast<Json::Int64>(group.fileBytes);
    value["reclaimable_bytes"] = static_cast<Json::Int64>(group.reclaimable);
    value["compressed"] = group.compressed;
    value["members"] = Json::Value(Json::arrayValue);
    for (const Member& member : group.members) {
        Json::Value& entry = value["members"].append(Json::Value(Json::objectValue));
        entry["path"] = member.path;
        entry["state"] = nameOf(member.state);
    }
    return value;
}

/// A field as RFC 4180 has it; lines end as those of other tools do.
std::string quoted(const std::string& text) {
    if (text.find_first_of(",\"\r\n") == std::string::npos) return text;
    return '"' + replaced(text, {{'"', "\"\""}}) + '"';
}

void printJson(const std::vector<Group>& all) {
    Json::FastWriter writer;
    writer.omitEndingLineFeed();
    for (const Group& group : all)
        std::cout << (&group == all.data() ? "[" : ",\n") << writer.write(valueOf(group));
    std::cout << (all.empty() ? "[]\n" : "]\n");
}

void printPaths(const std::vector<Group>& all) {
    for (const Group& group : all) {
        for (const Member& member : group.members) std::cout << member.path << '\0';
    }
}

void printCsv(const std::vector<Group>& all) {
    std::cout << "space,digest,file_bytes,reclaimable_bytes,state,path\n";
    for (const Group& group : all) {
        for (const Member& member : group.members) {
            std::cout << quoted(group.spaceId) << "," << quoted(group.digest) << ","
                      << group.fileBytes << "," << group.reclaimable << "," << nameOf(member.state)
                      << "," << quoted(member.path) << "\n";
        }
    }
}

/// The groups that are asked for, in the order that is.
std::vector<Group> wanted(const GroupsOptions& options, const std::vector<std::string>& spaceIds) {
    std::vector<Group> all = groupsOf(spaceIds, Which::All);
    if (!options.all) std::erase_if(all, [](const Group& group) { return group.reclaimable == 0; });
    const bool bySize = options.sort == "size";
    std::stable_sort(all.begin(), all.end(), [bySize](const Group& a, const Group& b) {
        return bySize ? a.reclaimable > b.reclaimable : a.members.size() > b.members.size();
    });
    if (all.size() > options.top) all.resize(options.top);
    return all;
}

}  // namespace

int groups(const GroupsOptions& options) {
    const std::vector<std::string> chosen = chosenSpaces(options.spaceIds);
    requireSpaces(chosen);
    const std::vector<Group> all = wanted(options, chosen);
    if (options.format == "csv") {
        printCsv(all);
    } else if (options.format == "json") {
        printJson(all);
    } else if (options.format == "null") {
        printPaths(all);
    } else if (chosen.empty()) {
        return nothingScanned();
    } else {
        for (const Group& group : all) printText(group);
        if (all.empty())
            std::cerr << "No group has anything to give back; --all shows all groups\n";
        sayWhatIsSetAside(chosen);
    }
    return kDone;
}

}  // namespace ruxctl
