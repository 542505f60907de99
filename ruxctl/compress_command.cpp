#include <json/json.h>
#include <unistd.h>

#include <algorithm>
#include <iostream>

#include "android-base/properties.h"
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

constexpr size_t kShown = 3;  // of the largest groups, and of exceptions

void printSkipped(const std::vector<Group>& groups) {
    for (const Group& group : groups) {
        for (const Member& member : group.members) {
            if (member.step != Step::Skip) continue;
            std::cout << inked(Ink::Warning, "skip") << "  " << shown(member.path) << ": "
                      << member.reason << "\n";
        }
    }
}

/// Prints which names would become links to which.
void printPlan(const std::vector<Group>& groups) {
    for (const Group& group : groups) {
        for (const Member& member : group.members) {
            if (member.step == Step::Keep && group.count(Step::Link) > 0)
                std::cout << inked(Ink::Bold, "keep") << "  " << shown(member.path) << "\n";
            if (member.step == Step::Link)
                std::cout << inked(Ink::Good, "link") << "  " << shown(member.path) << "\n";
        }
    }
    printSkipped(groups);
}

/// The names that would be linked although scans are to leave them alone.
std::vector<std::string> exceptions(const std::vector<Group>& groups) {
    const PathPatterns rules(exceptionRules());
    std::vector<std::string> paths;
    for (const Group& group : groups) {
        for (const Member& member : group.members) {
            if (member.step == Step::Link && rules.match(member.path)) paths.push_back(member.path);
        }
    }
    return paths;
}

/// Says what the question is about.
void describe(std::vector<Group> groups, const std::vector<std::string>& spaceIds) {
    std::stable_sort(groups.begin(), groups.end(),
                     [](const Group& a, const Group& b) { return a.reclaimable > b.reclaimable; });
    for (size_t i = 0; i < std::min(groups.size(), kShown) && groups[i].reclaimable > 0; ++i) {
        const Group& group = groups[i];
        std::cerr << "  " << humanBytes(group.reclaimable) << " from "
                  << counted(group.count(Step::Link), "copy", "copies") << " of "
                  << shown(group.kept()->path, STDERR_FILENO) << "\n";
    }
    const std::vector<std::string> excepted = exceptions(groups);
    for (size_t i = 0; i < std::min(excepted.size(), kShown); ++i)
        std::cerr << "  " << shown(excepted[i], STDERR_FILENO) << " matches an exception\n";
    if (!excepted.empty()) {
        std::cerr << counted(static_cast<int64_t>(excepted.size()), "file")
                  << " in all, recorded before the exception was set; a scan with --fresh leaves "
                     "such files out\n";
    }
    if (const int64_t skipped = count(groups, Step::Skip); skipped > 0) {
        std::cerr << counted(skipped, "file") << " will be left alone; --dry-run says why\n";
    }
    sayWhatIsSetAside(spaceIds);
}

/// How far a compression of `expected` links is.
std::string progressText(int64_t expected, double seconds) {
    const std::string text = android::base::GetProperty("sys.ruxservice.compress.prog", "0");
    return progress(strtoll(text.c_str(), nullptr, 10), expected, seconds,
                    [](int64_t links) { return grouped(links); });
}

Json::Value valueOf(const CompressOptions& options, const std::vector<Group>& groups,
                    int64_t bytes) {
    Json::Value value(Json::objectValue);
    value["spaces"] = Json::Value(Json::arrayValue);
    for (const std::string& spaceId : options.spaceIds) value["spaces"].append(spaceId);
    value["links"] = static_cast<Json::Int64>(count(groups, Step::Link));
    value["freed_bytes"] = static_cast<Json::Int64>(bytes);
    value["dry_run"] = options.dryRun;
    value["skipped"] = Json::Value(Json::arrayValue);
    for (const Group& group : groups) {
        for (const Member& member : group.members) {
            if (member.step != Step::Skip) continue;
            Json::Value skipped(Json::objectValue);
            skipped["path"] = member.path;
            skipped["reason"] = member.reason;
            value["skipped"].append(std::move(skipped));
        }
    }
    return value;
}

std::string undoOf(const std::vector<std::string>& spaceIds) {
    std::string text;
    for (const std::string& spaceId : spaceIds)
        text += (text.empty() ? "" : ", ") + ("ruxctl restore --space " + spaceId);
    return text;
}

}  // namespace

int compress(const CompressOptions& options) {
    std::optional<Client> client;
    if (!options.dryRun && !(client = Client::connect())) return noService();
    for (const std::string& spaceId : options.spaceIds) {
        if (!exists(spaceId)) return noSpace(spaceId);
    }
    std::vector<Group> groups = groupsOf(options.spaceIds, Which::ToCompress);
    const int64_t links = count(groups, Step::Link);
    const int64_t bytes = reclaimable(groups);
    const std::string summary = counted(links, "file") + " can become " +
                                (links == 1 ? "a link" : "links") + ", giving back " +
                                humanBytes(bytes);
    if (options.json && (options.dryRun || links == 0)) {
        std::cout << Json::FastWriter().write(valueOf(options, groups, bytes));
        return kDone;
    }
    if (options.dryRun) {
        printPlan(groups);
        std::cout << summary << "; nothing has been changed\n";
        sayWhatIsSetAside(options.spaceIds);
        return kDone;
    }
    if (links == 0) {
        printSkipped(groups);
        std::cout << "Nothing can be linked\n";
        sayWhatIsSetAside(options.spaceIds);
        return kDone;
    }
    std::cerr << summary << "\n";
    describe(groups, options.spaceIds);
    if (!options.yes) {
        std::cerr << "Linked files are one file: what is written to one in place, and a change of "
                     "its owner or mode,\nis there under all of its names.\n";
        const auto answer = confirmed("Link them?");
        if (!answer) return nobodyToAsk();
        if (!*answer) {
            std::cerr << "Nothing has been changed\n";
            return kDone;
        }
    }

    StatusLine line;
    const Outcome outcome =
            carryOut(*client, kCompressOperation, arrayText(options.spaceIds), [&](double seconds) {
                line.show(Interrupts::any() ? "Stopping after the link at hand"
                                            : progressText(links, seconds));
            });
    line.clear();
    if (outcome.failure) return fail(*outcome.failure);
    const int64_t freed = checkLinks(groups);
    if (options.json) {
        std::cout << Json::FastWriter().write(valueOf(options, groups, freed));
    } else {
        if (!outcome.stopped) printSkipped(groups);
        const int64_t linked = count(groups, Step::Link);
        std::cout << counted(linked, "file") << " linked in " << duration(outcome.seconds) << ", "
                  << humanBytes(freed) << " given back\n";
        if (linked > 0) std::cout << "undo: " << undoOf(options.spaceIds) << "\n";
    }
    if (outcome.stopped) {
        std::cerr << "ruxctl: stopped; what is linked stays linked, the same command goes on\n";
        return kInterrupted;
    }
    return kDone;
}

}  // namespace ruxctl
