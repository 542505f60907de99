#include <json/json.h>

#include <algorithm>
#include <chrono>
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
    for (const Member* member : membersWith(groups, Step::Skip)) {
        std::cout << inked(Ink::Warning, "skip") << "  " << shown(member->path) << ": "
                  << member->reason() << "\n";
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

void describeLargest(std::vector<Group> groups) {
    std::stable_sort(groups.begin(), groups.end(),
                     [](const Group& a, const Group& b) { return a.reclaimable > b.reclaimable; });
    for (size_t i = 0; i < std::min(groups.size(), kShown) && groups[i].reclaimable > 0; ++i) {
        const Group& group = groups[i];
        std::cerr << "  " << humanBytes(group.reclaimable) << " from "
                  << counted(group.count(Step::Link), "copy", "copies") << " of "
                  << shown(group.kept()->path) << "\n";
    }
}

/// Names that would be linked although scans are to leave them alone.
void describeExceptions(const std::vector<Group>& groups) {
    const PathPatterns rules(exceptionRules(), false);
    std::vector<const Member*> excepted = membersWith(groups, Step::Link);
    std::erase_if(excepted, [&](const Member* member) { return !rules.match(member->path); });
    if (excepted.empty()) return;
    for (size_t i = 0; i < std::min(excepted.size(), kShown); ++i)
        std::cerr << "  " << shown(excepted[i]->path) << " matches an exception\n";
    std::cerr << counted(static_cast<int64_t>(excepted.size()), "file")
              << " in all, recorded before the exception was set; the next scan leaves them out\n";
}

/// Says what more could be linked, though not by one space: one file is kept for each group.
void sayWhatStaysApart(const std::vector<Group>& groups) {
    int64_t bytes = 0;
    for (const Group& group : groups) bytes += group.apart;
    if (bytes == 0) return;
    std::cerr
            << humanBytes(bytes)
            << " more could be given back among files of other owners, modes or file systems that "
               "are equal among themselves: with a dedupe for each of their directories; -x leaves "
               "out other file systems\n";
}

/// Says what else there is to know, whether somebody is asked or not.
void describeRest(const std::vector<Group>& groups, const CompressOptions& options) {
    describeExceptions(groups);
    sayWhatStaysApart(groups);
    sayWhatIsSetAside(options.spaceIds);
}

/// Says what the question is about.
void describe(const std::vector<Group>& groups, const CompressOptions& options) {
    describeLargest(groups);
    if (const int64_t skipped = count(groups, Step::Skip); skipped > 0)
        std::cerr << counted(skipped, "file") << " will be left alone; --dry-run says why\n";
    describeRest(groups, options);
    std::cerr << "Linked files are one file: what is written to one in place, as many editors do, "
                 "and a change of its\nowner or mode, is there under all of its names. All names "
                 "get the kept file's times.\n";
}

/// How far a compression of `expected` links is.
std::string progressText(int64_t expected, double seconds) {
    const std::string text = android::base::GetProperty("sys.ruxservice.compress.prog", "0");
    return progress(strtoll(text.c_str(), nullptr, 10), expected, seconds,
                    [](int64_t links) { return grouped(links); });
}

void printJson(const CompressOptions& options, const std::vector<Group>& groups, int64_t bytes) {
    Json::Value value(Json::objectValue);
    value["spaces"] = Json::Value(Json::arrayValue);
    for (const std::string& spaceId : options.spaceIds) value["spaces"].append(spaceId);
    value["links"] = static_cast<Json::Int64>(count(groups, Step::Link));
    value["freed_bytes"] = static_cast<Json::Int64>(bytes);
    value["dry_run"] = options.dryRun;
    value["skipped"] = Json::Value(Json::arrayValue);
    for (const Member* member : membersWith(groups, Step::Skip)) {
        Json::Value& skipped = value["skipped"].append(Json::Value(Json::objectValue));
        skipped["path"] = member->path;
        skipped["reason"] = member->reason();
    }
    std::cout << Json::FastWriter().write(value);
}

std::string summaryOf(const std::vector<Group>& groups) {
    const int64_t links = count(groups, Step::Link);
    return counted(links, "file") + " can become " + (links == 1 ? "a link" : "links") +
           ", giving back " + humanBytes(reclaimable(groups));
}

/// The groups. Where nobody looks at the plan a status of each path is enough.
std::vector<Group> lookedAt(const CompressOptions& options) {
    const auto start = std::chrono::steady_clock::now();
    StatusLine line;
    return groupsOf(options.spaceIds, Which::ToCompress,
                    options.yes && !options.dryRun ? Look::Status : Look::Plan,
                    [&](int64_t done, int64_t all) {
                        const std::chrono::duration<double> passed =
                                std::chrono::steady_clock::now() - start;
                        line.show("Looking " +
                                  progress(done, all, passed.count(),
                                           [](int64_t groups) { return grouped(groups); }));
                    });
}

/// For a dry run, and where there is nothing to do.
void tellPlan(const CompressOptions& options, const std::vector<Group>& groups) {
    if (options.json) return printJson(options, groups, reclaimable(groups));
    if (options.dryRun) {
        printPlan(groups);
        std::cout << summaryOf(groups) << "; nothing has been changed\n";
    } else {
        printSkipped(groups);
        std::cout << "Nothing can be linked\n";
    }
    sayWhatStaysApart(groups);
    sayWhatIsSetAside(options.spaceIds);
}

Outcome link(const Client& client, const CompressOptions& options, int64_t links) {
    StatusLine line;
    return carryOut(client, kCompressOperation, arrayText(options.spaceIds), [&](double seconds) {
        line.show(Interrupts::any() ? "Stopping after the link at hand"
                                    : progressText(links, seconds));
    });
}

void printText(const std::vector<Group>& groups, const Outcome& outcome, int64_t freed,
               int64_t before) {
    if (!outcome.stopped) printSkipped(groups);
    if (const int64_t linked = count(groups, Step::Link); linked > 0) {
        std::cout << counted(linked, "file") << " linked in " << duration(outcome.seconds) << ", "
                  << humanBytes(freed) << " given back\n";
    } else {
        std::cout << "Nothing " << (before > 0 ? "else " : "") << "can be linked\n";
    }
}

void printUndo(const std::vector<std::string>& spaceIds) {
    std::string undo;
    for (const std::string& spaceId : spaceIds)
        undo += (undo.empty() ? "undo:" : ",") + (" ruxctl restore --space " + spaceId);
    std::cout << undo << "\n";
}

/// Says how it ended. Throws a Failure for links that have no undo, though nobody has stopped it.
int tellEnd(const CompressOptions& options, bool stopped, int64_t withoutUndo) {
    std::string again = "ruxctl compress";
    for (const std::string& spaceId : options.spaceIds) again += " " + spaceId;
    const std::string lost =
            counted(withoutUndo, "link") + (withoutUndo == 1 ? " has" : " have") + " no undo yet";
    if (stopped) {
        std::cerr << "ruxctl: stopped; what is linked stays linked"
                  << (withoutUndo > 0 ? ", " + lost : "") << "; to go on: " << again << "\n";
        return kInterrupted;
    }
    if (withoutUndo == 0) return kDone;
    throw Failure(lost +
                  ", as the database could not be saved; the service's log says why. When "
                  "that is mended: " +
                  again);
}

/// Says what came of it, by another look at the files and at the databases.
int tell(const CompressOptions& options, std::vector<Group>& groups, const Outcome& outcome) {
    const int64_t freed = checkLinks(groups);
    const int64_t withoutUndo = linksWithoutUndo(groups);
    int64_t before = 0;
    for (const Group& group : groups) before += group.linkedBefore();
    if (options.json) {
        printJson(options, groups, freed);
    } else {
        printText(groups, outcome, freed, before);
    }
    if (options.yes) describeRest(groups, options);
    if (before > 0 && withoutUndo == 0) {
        std::cerr << counted(before, "file")
                  << (before == 1 ? " is a link already; its" : " are links already; their")
                  << " undo is recorded\n";
    }
    if (!options.json && count(groups, Step::Link) + before > withoutUndo)
        printUndo(options.spaceIds);
    return tellEnd(options, outcome.stopped, withoutUndo);
}

}  // namespace

int compress(const CompressOptions& options) {
    std::optional<Client> client;
    if (!options.dryRun) client = service();
    requireSpaces(options.spaceIds);
    std::vector<Group> groups = lookedAt(options);
    const int64_t links = count(groups, Step::Link);
    const bool isAsked = std::any_of(groups.begin(), groups.end(),
                                     [](const Group& group) { return group.isOffered(); });
    if (options.dryRun || !isAsked) {
        tellPlan(options, groups);
        return kDone;
    }
    if (links > 0 && !options.yes) {
        std::cerr << summaryOf(groups) << "\n";
        describe(groups, options);
        if (!agreed("Link them?", false)) return nothingChanged();
    }
    return tell(options, groups, link(*client, options, links));
}

}  // namespace ruxctl
