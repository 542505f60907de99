#include <sys/statvfs.h>

#include <algorithm>
#include <iostream>
#include <map>

#include "ruxctl/commands.h"
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

/// Throws a Failure where a file system has not enough room for its share.
void requireRoom(const std::map<std::string, int64_t>& needed) {
    for (const auto& [path, bytes] : needed) {
        struct statvfs fs = {};
        if (statvfs(path.c_str(), &fs) != 0) continue;
        const auto room = static_cast<int64_t>(fs.f_bavail * fs.f_frsize);
        if (bytes <= room) continue;
        throw Failure(
                "the file system of " + path + " has " + humanBytes(room) + " left, and " +
                humanBytes(bytes) +
                " are needed; restore less with --match or --under, or make room (--force goes "
                "on as far as there is some)");
    }
}

Outcome giveData(const Client& client, SpaceQuery query, int64_t needed) {
    if (query.patterns.empty()) query.patterns = kAllPaths;
    StatusLine line;
    const int64_t writtenBefore = client.bytesMoved("wchar:");
    return carryOut(client, kRestoreOperation, ruleText(query), [&](double seconds) {
        const int64_t written = client.bytesMoved("wchar:") - writtenBefore;
        line.show(Interrupts::any()
                          ? "A restore cannot be stopped; Ctrl-C again leaves it to itself"
                          : progress(std::min(written, needed), needed, seconds, humanBytes));
    });
}

/// Has the undo of links recorded again that the service has forgotten, as it does in a restore
/// that fails. False when that would link more, and nothing was done.
bool recordAgain(const Client& client, const std::string& spaceId,
                 const std::vector<std::string>& paths) {
    for (const auto& portion : portionsOf(paths))
        carryOut(client, kScanOperation, scanText({spaceId, kAllPaths, portion}, {}, true));
    const std::vector<Group> groups = groupsOf({spaceId}, Which::ToCompress);
    if (count(groups, Step::Link) + count(groups, Step::Skip) > 0) return false;
    carryOut(client, kCompressOperation, arrayText({spaceId}));
    return true;
}

/// Says what is one file in a space without an undo.
void sayWhatHasNoUndo(const std::string& spaceId) {
    const std::vector<std::string> paths = pathsWithoutUndo(spaceId);
    if (paths.empty()) return;
    std::cerr << counted(static_cast<int64_t>(paths.size()), "path") << " of " << spaceId
              << " are names of one file with others and have no undo: "
              << shown(paths[0], STDERR_FILENO) << (paths.size() > 1 ? ", ..." : "")
              << "\nThese links were there before, or an operation has not ended well. To have an "
                 "undo recorded:\n  ruxctl scan --space "
              << spaceId << " && ruxctl compress " << spaceId << "\n";
}

/// Says what came of it, by another look at the files.
int tell(const Client& client, const std::string& spaceId, const std::vector<Group>& groups,
         double seconds) {
    std::vector<std::string> left;
    const int64_t taken = checkRestored(groups, &left);
    std::cout << humanBytes(taken) << " taken up again in " << duration(seconds) << "\n";
    for (const std::string& path : left)
        std::cout << inked(Ink::Bad, "linked") << "  " << shown(path) << "\n";
    if (left.empty()) {
        sayWhatHasNoUndo(spaceId);
        return kDone;
    }
    const std::string problem = counted(static_cast<int64_t>(left.size()), "file") +
                                " could not be restored; the service's log says why. ";
    if (recordAgain(client, spaceId, left))
        throw Failure(problem + "When that is mended: ruxctl restore --space " + spaceId);
    throw Failure(problem + "To have the undo recorded again: ruxctl compress " + spaceId +
                  "; then restore them");
}

}  // namespace

int restore(const RestoreOptions& options) {
    const PathPatterns patterns(options.query.patterns);
    const Client client = service();
    requireSpaces({options.query.spaceId});
    const std::vector<Group> groups = selected(options.query, patterns);
    if (groups.empty()) {
        std::cerr << "No linked files match; nothing has been changed\n";
        sayWhatHasNoUndo(options.query.spaceId);
        return kDone;
    }
    const auto neededOn = takenUpByRestore(groups);
    int64_t needed = 0;
    for (const auto& [path, bytes] : neededOn) needed += bytes;
    int64_t files = 0;
    for (const Group& group : groups) files += static_cast<int64_t>(group.members.size());
    std::cerr << counted(files, "file") << " of "
              << counted(static_cast<int64_t>(groups.size()), "group")
              << " will get data of their own, taking up " << humanBytes(needed) << "\n";
    if (!options.force) requireRoom(neededOn);
    if (!agreed("Restore them?", options.yes)) return nothingChanged();
    const Outcome outcome = giveData(client, options.query, needed);
    return tell(client, options.query.spaceId, groups, outcome.seconds);
}

}  // namespace ruxctl
