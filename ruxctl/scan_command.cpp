#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <iostream>
#include <optional>

#include "db/files.h"
#include "ruxctl/commands.h"
#include "ruxctl/database.h"
#include "ruxctl/json.h"
#include "ruxctl/messages.h"
#include "ruxctl/operation.h"
#include "ruxctl/paths.h"
#include "ruxctl/terminal.h"
#include "ruxctl/tree.h"
#include "ruxctl/units.h"

namespace ruxctl {
namespace {

namespace fs = std::filesystem;

/// Adds what the globs say to the patterns.
void takeGlobs(const ScanOptions& options, std::vector<std::string>& patterns) {
    std::string excluded;
    for (const std::string& glob : options.excluded)
        excluded += (excluded.empty() ? "" : "|") + patternOfGlob(glob);
    for (const std::string& glob : options.included) patterns.push_back(patternOfGlob(glob));
    if (patterns.empty()) patterns = kAllPaths;
    if (excluded.empty()) return;
    for (std::string& pattern : patterns) pattern = "(?!(?:" + excluded + ")$)(?:" + pattern + ")";
}

/// Linked files that such a scan would not find again.
int64_t linkedElsewhere(const SpaceQuery& query, uint64_t leastBytes) {
    const PathPatterns patterns(query.patterns);
    const Json::Value linked = imagesOf(query.spaceId, false).compressed;
    int64_t paths = 0;
    for (const Json::Value& group : linked) {
        if (!group.isObject() || !group["f_list"].isArray()) continue;
        const bool isSmall = static_cast<uint64_t>(numberOf(group, "f_size")) < leastBytes;
        for (const Json::Value& path : group["f_list"]) {
            const std::string text = path.isString() ? path.asString() : "";
            const auto isAt = [&text](const std::string& place) {
                return text == place || text.starts_with(place == "/" ? place : place + "/");
            };
            const bool isMet = !isSmall && patterns.match(text) &&
                               std::any_of(query.places.begin(), query.places.end(), isAt);
            paths += isMet ? 0 : 1;
        }
    }
    return paths;
}

/// Says how many files the space has from before that such a scan would leave out.
void sayWhatStaysIn(const SpaceQuery& query) {
    const PathPatterns patterns(query.patterns);
    const auto paths = recordedPaths(query.spaceId);
    const int64_t others = std::count_if(paths.begin(), paths.end(),
                                         [&](const auto& path) { return !patterns.match(path); });
    if (others == 0) return;
    std::cerr << counted(others, "file") << " recorded before that this scan would leave out "
              << (others == 1 ? "is" : "are") << " still in the space; --fresh leaves them out\n";
}

/// The places in portions that a request can hold.
std::vector<std::vector<std::string>> portionsOf(const std::vector<std::string>& places) {
    constexpr size_t kMost = size_t{1} << 20;  // bytes of paths; a request holds 8 MiB
    std::vector<std::vector<std::string>> portions(1);
    size_t bytes = 0;
    for (const std::string& place : places) {
        bytes += place.size();
        if (bytes > kMost && !portions.back().empty()) {
            portions.emplace_back();
            bytes = place.size();
        }
        portions.back().push_back(place);
    }
    return portions;
}

std::string progressText(const Client& client, int64_t readBefore, int64_t all, double seconds) {
    const int64_t read = client.bytesMoved("rchar:") - readBefore;
    if (all > 0) return progress(std::min(read, all), all, seconds, humanBytes);
    return "Scanning for " + duration(seconds) +
           (read > 0 ? ", " + humanBytes(read) + " read" : "");
}

}  // namespace

int scan(const ScanOptions& options) {
    SpaceQuery query = options.query;
    if (const PathPatterns patterns(query.patterns); patterns.problem())
        return fail({kUsage, *patterns.problem()});
    takeGlobs(options, query.patterns);
    for (std::string& place : query.places) {
        place = absolutePath(place);
        if (access(place.c_str(), F_OK) != 0)
            return fail({kFailed, place + ": " + strerror(errno)});
    }
    const auto client = Client::connect();
    if (!client) return noService();
    if (options.fresh && exists(query.spaceId)) {
        if (const int64_t paths = linkedElsewhere(query, options.leastBytes);
            paths > 0 && !options.force) {
            return fail({kFailed, counted(paths, "linked file") +
                                          " of the space would not be met, and the next link could "
                                          "forget how to restore them; scan all of its "
                                          "directories, or use --force"});
        }
        if (const auto failure = startAfresh(*client, query.spaceId); failure)
            return fail(*failure);
    }
    const int64_t before = recordCount(query.spaceId);

    std::optional<TreeCount> tree;
    if (options.progress || options.leastBytes > 0) tree.emplace(query.places, options.leastBytes);
    // The service knows no sizes, but takes files one by one as well.
    const auto portions = portionsOf(options.leastBytes > 0 ? tree->files() : query.places);
    StatusLine line;
    const int64_t readBefore = client->bytesMoved("rchar:");
    Outcome outcome;
    double secondsBefore = 0;
    for (const auto& portion : portions) {
        query.places = portion;
        outcome = carryOut(*client, kScanOperation, ruleText(query), [&](double seconds) {
            // How much of it has been read before is not known, so later scans have no bar.
            const int64_t all = before == 0 && tree ? tree->bytes() : 0;
            line.show(Interrupts::any()
                              ? "Stopping; what has been recorded is being saved"
                              : progressText(*client, readBefore, all, secondsBefore + seconds));
        });
        outcome.seconds = secondsBefore += outcome.seconds;
        if (outcome.failure || outcome.stopped) break;
    }
    line.clear();
    if (outcome.failure) return fail(*outcome.failure);
    if (!exists(query.spaceId)) {
        if (const auto problem = rootProblem(); problem) return fail({kFailed, problem->message});
        return fail({kFailed, "the service could not use the space " + query.spaceId +
                                      "; its log says why"});
    }
    const int64_t after = recordCount(query.spaceId);
    std::ostream& out = options.quiet ? std::cerr : std::cout;
    out << counted(after, "file") << " recorded, " << grouped(std::max<int64_t>(after - before, 0))
        << " of them new, in " << duration(outcome.seconds) << "\n";
    if (outcome.stopped) {
        std::cerr << "ruxctl: stopped; what was recorded is kept, the same scan again goes on\n";
        return kInterrupted;
    }
    if (tree && !tree->leftOut().empty()) {
        std::cerr << counted(static_cast<int64_t>(tree->leftOut().size()), "name") << " left out"
                  << (options.verbose ? ":\n" : " (--verbose says which)\n");
        for (const auto& [path, reason] : tree->leftOut()) {
            if (options.verbose)
                std::cerr << "  " << shown(path, STDERR_FILENO) << ": " << reason << "\n";
        }
    }
    const bool leavesOut = !options.query.patterns.empty() || !options.included.empty() ||
                           !options.excluded.empty();
    if (before > 0 && leavesOut) sayWhatStaysIn(query);
    if (!options.quiet) sayWhatIsSetAside({query.spaceId});
    return kDone;
}

int dedupe(ScanOptions options, CompressOptions then) {
    // A space of its own for these directories and what is left out of them, so that nothing comes
    // along from another scan.
    std::vector<std::string> places;
    for (const std::string& place : options.query.places) places.push_back(absolutePath(place));
    std::sort(places.begin(), places.end());
    rux::TextStamp stamp;
    for (const auto& texts : {places, options.query.patterns, options.included, options.excluded}) {
        for (const std::string& text : texts) stamp.add(text + '\n');
        stamp.add("\n");
    }
    stamp.add(std::to_string(options.leastBytes));
    char hash[16];
    snprintf(hash, sizeof(hash), "-%08x", static_cast<unsigned>(stamp.hash));
    std::string name = fs::path(places.front()).filename().string().substr(0, 100);
    for (char& c : name) {  // so that it needs no quotes
        if (isalnum(static_cast<unsigned char>(c)) == 0) c = '_';
    }
    options.query.spaceId = (name.empty() ? "root" : name) + hash;
    options.quiet = true;
    if (const int exit = scan(options); exit != kDone) return exit;
    then.spaceIds = {options.query.spaceId};
    return compress(then);
}

int forget(const ForgetOptions& options) {
    const std::string& spaceId = options.spaceId;
    if (!exists(spaceId)) return noSpace(spaceId);
    const Space space = lookAt(spaceId);
    if (space.compressed > 0 && !options.force) {
        return fail({kFailed, counted(space.compressed, "group") +
                                      " of links would lose their undo; restore them first, "
                                      "begin anew with `ruxctl scan --fresh`, or use --force"});
    }
    if (!options.yes) {
        const auto answer =
                confirmed("Forget " + counted(space.files, "record") + " of " + spaceId + "?");
        if (!answer) return nobodyToAsk();
        if (!*answer) return kDone;
    }
    if (const auto client = Client::connect(); client) {
        if (const auto failure = startAfresh(*client, spaceId); failure) return fail(*failure);
    }
    if (!forgetRecords(spaceId, true))
        return fail({kFailed, spaceId + " cannot be removed: " + strerror(errno)});
    std::cerr << "Forgotten; no file has been touched\n";
    return kDone;
}

}  // namespace ruxctl
