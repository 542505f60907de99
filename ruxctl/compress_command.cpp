#include <algorithm>
#include <iostream>
#include <set>

#include "android-base/properties.h"
#include "ruxctl/commands.h"
#include "ruxctl/database.h"
#include "ruxctl/messages.h"
#include "ruxctl/operation.h"
#include "ruxctl/terminal.h"
#include "ruxctl/units.h"

namespace ruxctl {
namespace {

constexpr int kBarWidth = 30;

/// Prints which names would become links to which.
int printPlan(const std::vector<Group>& groups) {
    int64_t links = 0;
    int64_t bytes = 0;
    for (const Group& group : groups) {
        if (group.files < 2) continue;
        const Member* kept = nullptr;
        std::set<FileId> others;  // whose owner, group or mode the kept file does not have
        for (const Member& member : group.members) {
            if (member.state == State::Gone) continue;
            if (kept == nullptr) {
                kept = &member;
                std::cout << inked(Ink::Bold, "keep") << "  " << member.path << "\n";
            } else if (member.state == State::Changed) {
                std::cout << inked(Ink::Warning, "skip") << "  " << member.path << "  (changed)\n";
            } else if (member.access != kept->access) {
                std::cout << inked(Ink::Warning, "skip") << "  " << member.path
                          << "  (of another owner, group or mode)\n";
                others.insert(member.file);
            } else if (member.file != kept->file) {
                std::cout << inked(Ink::Good, "link") << "  " << member.path << "\n";
                ++links;
            }
        }
        bytes += group.reclaimable - static_cast<int64_t>(others.size()) * group.fileBytes;
    }
    std::cout << counted(links, "file") << " would be linked, giving back " << humanBytes(bytes)
              << "; nothing has been changed\n";
    return kDone;
}

/// How far a compression of about `expected` links is.
std::string progressText(int64_t expected, double seconds) {
    const std::string text = android::base::GetProperty("sys.ruxservice.compress.prog", "0");
    const auto done = static_cast<double>(strtoll(text.c_str(), nullptr, 10));
    std::string line = bar(expected > 0 ? done / static_cast<double>(expected) : 0, kBarWidth) +
                       " " + grouped(static_cast<int64_t>(done)) + " of " +
                       counted(expected, "link");
    const double rate = seconds > 0 ? done / seconds : 0;
    if (rate > 0) {
        const double left = (static_cast<double>(expected) - done) / rate;
        line += ", " + grouped(static_cast<int64_t>(rate)) + "/s, " +
                duration(std::max(left, 0.0)) + " left";
    }
    return line;
}

/// Paths that still lead to a file of their own.
int64_t leftAlone(const std::vector<Group>& groups) {
    int64_t files = 0;
    for (const Group& group : groups) {
        const int64_t different = static_cast<int64_t>(diskUse(group).size());
        files += std::max<int64_t>(different - 1, 0);
    }
    return files;
}

}  // namespace

int compress(const CompressOptions& options) {
    std::optional<Client> client;
    if (!options.dryRun && !(client = Client::connect())) return noService();
    std::vector<Group> groups;
    for (const std::string& spaceId : options.spaceIds) {
        if (!exists(spaceId)) return noSpace(spaceId);
        for (Group& group : groupsOf(spaceId, Which::ToCompress))
            groups.push_back(std::move(group));
    }
    if (options.dryRun) return printPlan(groups);

    std::vector<Listing> listing;
    if (const auto failure = fetchListing(*client, options.spaceIds, {".*"}, &listing); failure)
        return fail(*failure);
    Listing estimate;
    for (const Listing& entry : listing) {
        estimate.groups += entry.groups;
        estimate.files += entry.files;
        estimate.bytes += entry.bytes;
    }
    const int64_t expected = estimate.files - estimate.groups;
    std::cerr << "About " << grouped(expected) << " of " << counted(estimate.files, "file")
              << " in " << counted(estimate.groups, "group") << " can become links, giving back "
              << humanBytes(estimate.bytes) << "\n";
    if (expected > 0 && !options.yes && canAsk()) {
        std::cerr << "Linked files are one file: what is written to one in place, and a change of "
                     "its owner or mode,\nis there under all of its names.\n";
        if (!confirmed("Link them?")) {
            std::cerr << "Nothing has been changed\n";
            return kDone;
        }
    }

    const DiskUse before = diskUse(groups);
    StatusLine line;
    const Outcome outcome =
            carryOut(*client, kCompressOperation, arrayText(options.spaceIds), [&](double seconds) {
                line.show(Interrupts::any() ? "Stopping after the link at hand"
                                            : progressText(expected, seconds));
            });
    line.clear();
    if (outcome.failure) return fail(*outcome.failure);
    const size_t comma = outcome.text.find(',');
    if (comma == std::string::npos) return fail({kFailed, "unexpected result: " + outcome.text});
    const int64_t bytes = strtoll(outcome.text.c_str() + comma + 1, nullptr, 10);
    const DiskUse after = diskUse(groups);
    std::cout << counted(strtoll(outcome.text.c_str(), nullptr, 10), "group") << " linked in "
              << duration(outcome.seconds) << ": " << humanBytes(bytes)
              << " by the service's count, " << humanBytes(givenBack(before, after))
              << " of disk blocks given back\n";
    if (outcome.stopped) {
        std::cerr << "ruxctl: stopped; what is linked stays linked, the same command goes on\n";
        return kInterrupted;
    }
    if (const int64_t left = leftAlone(groups); left > 0) {
        std::cerr << counted(left, "file")
                  << " were left as they are (in use, changed, or of another owner, mode or file "
                     "system); the service's log says which\n";
    }
    return kDone;
}

}  // namespace ruxctl
