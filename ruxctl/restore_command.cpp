#include <sys/stat.h>
#include <sys/statvfs.h>

#include <algorithm>
#include <iostream>
#include <map>
#include <regex>

#include "ruxctl/commands.h"
#include "ruxctl/database.h"
#include "ruxctl/messages.h"
#include "ruxctl/operation.h"
#include "ruxctl/terminal.h"
#include "ruxctl/units.h"

namespace ruxctl {
namespace {

/// The groups that the service will restore: those with a path that matches one of the patterns,
/// and with a path that contains one of the texts.
std::vector<Group> selected(const SpaceQuery& query) {
    std::vector<std::regex> patterns;
    for (const std::string& pattern : query.patterns) patterns.emplace_back(pattern);
    std::vector<Group> groups = groupsOf(query.spaceId, Which::Compressed);
    const auto isLeftOut = [&](const Group& group) {
        const auto anyPath = [&group](const auto& test) {
            return std::any_of(group.members.begin(), group.members.end(),
                               [&test](const Member& member) { return test(member.path); });
        };
        const bool matches = anyPath([&](const std::string& path) {
            return std::any_of(patterns.begin(), patterns.end(), [&](const std::regex& pattern) {
                return std::regex_match(path, pattern);
            });
        });
        const bool isUnder = query.places.empty() || anyPath([&](const std::string& path) {
                                 return std::any_of(query.places.begin(), query.places.end(),
                                                    [&](const auto& text) {
                                                        return path.find(text) != std::string::npos;
                                                    });
                             });
        return !matches || !isUnder;
    };
    groups.erase(std::remove_if(groups.begin(), groups.end(), isLeftOut), groups.end());
    return groups;
}

/// A file system on which there is not enough room for its share, in words; empty when there is.
std::string missingRoom(const std::vector<Group>& groups, const DiskUse& use) {
    std::map<dev_t, std::pair<DiskUse, std::string>> byDevice;  // and a path on it
    for (const auto& [file, part] : use) byDevice[file.first].first[file] = part;
    for (const Group& group : groups) {
        for (const Member& member : group.members) {
            if (member.state != State::Gone) byDevice[member.file.first].second = member.path;
        }
    }
    for (const auto& [device, part] : byDevice) {
        const auto& [itsUse, path] = part;
        struct statvfs fs = {};
        if (path.empty() || statvfs(path.c_str(), &fs) != 0) continue;
        const auto room = static_cast<int64_t>(fs.f_bavail * fs.f_frsize);
        const int64_t needed = takenUpByRestore(itsUse);
        if (needed > room) {
            return "the file system of " + path + " has " + humanBytes(room) + " left, and " +
                   humanBytes(needed) + " are needed";
        }
    }
    return "";
}

}  // namespace

int restore(const RestoreOptions& options) {
    const SpaceQuery& query = options.query;
    const auto client = Client::connect();
    if (!client) return noService();
    if (!exists(query.spaceId)) return noSpace(query.spaceId);
    std::vector<Group> groups;
    try {
        groups = selected(query);
    } catch (const std::regex_error& error) {
        return fail({kUsage, std::string("--match: ") + error.what()});
    }
    int64_t files = 0;
    for (const Group& group : groups) files += static_cast<int64_t>(group.members.size());
    const DiskUse before = diskUse(groups);
    std::cerr << counted(files, "file") << " of "
              << counted(static_cast<int64_t>(groups.size()), "group")
              << " will get data of their own, taking up " << humanBytes(takenUpByRestore(before))
              << "\n";
    if (const std::string missing = missingRoom(groups, before); !missing.empty() && !options.yes) {
        return fail({kFailed, missing + "; restore less with --match or --under, or make room "
                                        "(--yes goes on as far as there is some)"});
    }
    if (!groups.empty() && !options.yes && canAsk() && !confirmed("Restore them?")) {
        std::cerr << "Nothing has been changed\n";
        return kDone;
    }
    StatusLine line;
    const Outcome outcome =
            carryOut(*client, kRestoreOperation, ruleText(query), [&](double seconds) {
                line.show(Interrupts::any()
                                  ? "A restore cannot be stopped; Ctrl-C again leaves it to itself"
                                  : "Restoring for " + duration(seconds));
            });
    line.clear();
    if (outcome.failure) return fail(*outcome.failure);
    const DiskUse after = diskUse(groups);
    std::cout << humanBytes(outcome.number) << " taken up again by the service's count, "
              << humanBytes(givenBack(after, before)) << " of disk blocks, in "
              << duration(outcome.seconds) << "\n";
    return kDone;
}

}  // namespace ruxctl
