#include <sys/statvfs.h>

#include <algorithm>
#include <iostream>
#include <map>

#include "ruxctl/commands.h"
#include "ruxctl/database.h"
#include "ruxctl/groups.h"
#include "ruxctl/messages.h"
#include "ruxctl/operation.h"
#include "ruxctl/paths.h"
#include "ruxctl/terminal.h"
#include "ruxctl/units.h"

namespace ruxctl {
namespace {

/// The groups that the service will restore: those with a path that matches one of the patterns,
/// and with a path that contains one of the texts.
std::vector<Group> selected(const SpaceQuery& query, const PathPatterns& patterns) {
    std::vector<Group> groups = groupsOf({query.spaceId}, Which::Compressed);
    std::erase_if(groups, [&](const Group& group) {
        const auto anyPath = [&group](const auto& test) {
            return std::any_of(group.members.begin(), group.members.end(),
                               [&test](const Member& member) { return test(member.path); });
        };
        const auto isUnder = [&](const std::string& path) {
            return std::any_of(query.places.begin(), query.places.end(), [&](const auto& text) {
                return path.find(text) != std::string::npos;
            });
        };
        const auto isMatch = [&](const std::string& path) { return patterns.match(path); };
        return !(query.patterns.empty() || anyPath(isMatch)) ||
               !(query.places.empty() || anyPath(isUnder));
    });
    return groups;
}

/// A file system on which there is not enough room for its share, in words; empty when there is.
std::string missingRoom(const std::vector<Group>& groups) {
    std::map<dev_t, std::vector<Group>> byDevice;
    for (const Group& group : groups) {
        std::map<dev_t, Group> parts;
        for (const Member& member : group.members) {
            if (member.state != State::Gone) parts[member.file.first].members.push_back(member);
        }
        for (auto& [device, part] : parts) byDevice[device].push_back(std::move(part));
    }
    for (const auto& [device, part] : byDevice) {
        const std::string& path = part.front().members.front().path;
        struct statvfs fs = {};
        if (statvfs(path.c_str(), &fs) != 0) continue;
        const auto room = static_cast<int64_t>(fs.f_bavail * fs.f_frsize);
        const int64_t needed = takenUpByRestore(part);
        if (needed > room) {
            return "the file system of " + path + " has " + humanBytes(room) + " left, and " +
                   humanBytes(needed) + " are needed";
        }
    }
    return "";
}

}  // namespace

int restore(const RestoreOptions& options) {
    SpaceQuery query = options.query;
    const PathPatterns patterns(query.patterns);
    if (patterns.problem()) return fail({kUsage, *patterns.problem()});
    const auto client = Client::connect();
    if (!client) return noService();
    if (!exists(query.spaceId)) return noSpace(query.spaceId);
    const std::vector<Group> groups = selected(query, patterns);
    if (groups.empty()) {
        std::cerr << "No linked files match; nothing has been changed\n";
        return kDone;
    }
    if (query.patterns.empty()) query.patterns = kAllPaths;
    int64_t files = 0;
    for (const Group& group : groups) files += static_cast<int64_t>(group.members.size());
    const int64_t needed = takenUpByRestore(groups);
    std::cerr << counted(files, "file") << " of "
              << counted(static_cast<int64_t>(groups.size()), "group")
              << " will get data of their own, taking up " << humanBytes(needed) << "\n";
    if (const std::string missing = missingRoom(groups); !missing.empty() && !options.force) {
        return fail({kFailed, missing + "; restore less with --match or --under, or make room "
                                        "(--force goes on as far as there is some)"});
    }
    if (!options.yes) {
        const auto answer = confirmed("Restore them?");
        if (!answer) return nobodyToAsk();
        if (!*answer) {
            std::cerr << "Nothing has been changed\n";
            return kDone;
        }
    }
    StatusLine line;
    const int64_t writtenBefore = client->bytesMoved("wchar:");
    const Outcome outcome =
            carryOut(*client, kRestoreOperation, ruleText(query), [&](double seconds) {
                const int64_t written = client->bytesMoved("wchar:") - writtenBefore;
                line.show(
                        Interrupts::any()
                                ? "A restore cannot be stopped; Ctrl-C again leaves it to itself"
                                : progress(std::min(written, needed), needed, seconds, humanBytes));
            });
    line.clear();
    if (outcome.failure) return fail(*outcome.failure);
    std::vector<std::string> left;
    const int64_t taken = checkRestored(groups, &left);
    std::cout << humanBytes(taken) << " taken up again in " << duration(outcome.seconds) << "\n";
    for (const std::string& path : left)
        std::cout << inked(Ink::Bad, "linked") << "  " << shown(path) << "\n";
    if (left.empty()) return kDone;
    return fail(
            {kFailed, counted(static_cast<int64_t>(left.size()), "file") +
                              " could not be restored, and the service has forgotten the links; "
                              "the log says why. To have them known again: ruxctl scan --fresh "
                              "--space " +
                              query.spaceId + " DIR, then compress"});
}

}  // namespace ruxctl
