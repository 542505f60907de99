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
#include "ruxctl/messages.h"
#include "ruxctl/operation.h"
#include "ruxctl/paths.h"
#include "ruxctl/terminal.h"
#include "ruxctl/tree.h"
#include "ruxctl/units.h"

namespace ruxctl {
namespace {

namespace fs = std::filesystem;

/// The patterns with what the globs say.
std::vector<std::string> patternsOf(const ScanOptions& options) {
    std::vector<std::string> patterns = options.query.patterns;
    std::string excluded;
    for (const std::string& glob : options.excluded)
        excluded += (excluded.empty() ? "" : "|") + patternOfGlob(glob);
    for (const std::string& glob : options.included) patterns.push_back(patternOfGlob(glob));
    if (patterns.empty()) patterns = kAllPaths;
    if (excluded.empty()) return patterns;
    for (std::string& pattern : patterns) pattern = "(?!(?:" + excluded + ")$)(?:" + pattern + ")";
    return patterns;
}

/// What the service is asked for. Throws a Failure for a pattern or a place that cannot be meant.
SpaceQuery queryOf(const ScanOptions& options) {
    const PathPatterns areRight(options.query.patterns);
    SpaceQuery query = {options.query.spaceId, patternsOf(options), {}};
    for (const std::string& place : options.query.places) {
        query.places.push_back(absolutePath(place));
        if (access(query.places.back().c_str(), F_OK) != 0)
            throw Failure(query.places.back() + ": " + strerror(errno));
    }
    return query;
}

/// Linked files that such a scan would not find again.
int64_t linkedElsewhere(const SpaceQuery& query, uint64_t leastBytes) {
    const PathPatterns patterns(query.patterns);
    const auto isMet = [&](const std::string& path) {
        return patterns.match(path) &&
               std::any_of(query.places.begin(), query.places.end(), [&](const auto& place) {
                   return path == place || path.starts_with(place == "/" ? place : place + "/");
               });
    };
    int64_t paths = 0;
    for (const Json::Value& group : imagesOf(query.spaceId, false).compressed) {
        if (!group.isObject() || !group["f_list"].isArray()) continue;
        const bool isSmall = static_cast<uint64_t>(numberOf(group, "f_size")) < leastBytes;
        for (const Json::Value& path : group["f_list"])
            paths += isSmall || !isMet(path.isString() ? path.asString() : "") ? 1 : 0;
    }
    return paths;
}

/// Makes the service forget what it knows of the space, but for links.
void beginAfresh(const Client& client, const SpaceQuery& query, const ScanOptions& options) {
    if (const int64_t paths = linkedElsewhere(query, options.leastBytes);
        paths > 0 && !options.force) {
        throw Failure(counted(paths, "linked file") +
                      " of the space would not be met, and the next link could forget how to "
                      "restore them; scan all of its directories, or use --force");
    }
    startAfresh(client, query.spaceId);
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

std::string progressText(int64_t read, int64_t all, double seconds) {
    if (all > 0) return progress(std::min(read, all), all, seconds, humanBytes);
    return "Scanning for " + duration(seconds) +
           (read > 0 ? ", " + humanBytes(read) + " read" : "");
}

/// Has the portions scanned one after the other. There is a bar where it is known how much will be
/// read: in a first scan whose `tree` is counted.
Outcome scanPortions(const Client& client, SpaceQuery query,
                     const std::vector<std::vector<std::string>>& portions, const TreeCount* tree) {
    StatusLine line;
    const int64_t readBefore = client.bytesMoved("rchar:");
    Outcome outcome;
    double secondsBefore = 0;
    for (const auto& portion : portions) {
        query.places = portion;
        outcome = carryOut(client, kScanOperation, ruleText(query), [&](double seconds) {
            line.show(Interrupts::any() ? "Stopping; what has been recorded is being saved"
                                        : progressText(client.bytesMoved("rchar:") - readBefore,
                                                       tree != nullptr ? tree->bytes() : 0,
                                                       secondsBefore + seconds));
        });
        outcome.seconds = secondsBefore += outcome.seconds;
        if (outcome.stopped) break;
    }
    return outcome;
}

void sayWhatIsLeftOut(TreeCount& tree, bool verbose) {
    const auto& leftOut = tree.leftOut();
    if (leftOut.empty()) return;
    std::cerr << counted(static_cast<int64_t>(leftOut.size()), "name") << " left out"
              << (verbose ? ":\n" : " (--verbose says which)\n");
    if (!verbose) return;
    for (const auto& [path, reason] : leftOut)
        std::cerr << "  " << shown(path, STDERR_FILENO) << ": " << reason << "\n";
}

/// Throws a Failure when the service has not made the space.
void requireScanned(const std::string& spaceId) {
    if (exists(spaceId)) return;
    requireRoot();
    throw Failure("the service could not use the space " + spaceId + "; its log says why");
}

/// The name of a space of its own for these directories and what is left out of them, so that
/// nothing comes along from another scan.
std::string spaceFor(const ScanOptions& options) {
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
    return (name.empty() ? "root" : name) + hash;
}

}  // namespace

int scan(const ScanOptions& options) {
    const SpaceQuery query = queryOf(options);
    const Client client = service();
    if (options.fresh && exists(query.spaceId)) beginAfresh(client, query, options);
    const int64_t before = recordCount(query.spaceId);

    std::optional<TreeCount> tree;
    if (options.progress || options.leastBytes > 0) tree.emplace(query.places, options.leastBytes);
    // The service knows no sizes, but takes files one by one as well.
    const auto portions = portionsOf(options.leastBytes > 0 ? tree->files() : query.places);
    const Outcome outcome =
            scanPortions(client, query, portions, before == 0 && tree ? &*tree : nullptr);
    requireScanned(query.spaceId);

    const int64_t after = recordCount(query.spaceId);
    (options.quiet ? std::cerr : std::cout)
            << counted(after, "file") << " recorded, "
            << grouped(std::max<int64_t>(after - before, 0)) << " of them new, in "
            << duration(outcome.seconds) << "\n";
    if (outcome.stopped) {
        std::cerr << "ruxctl: stopped; what was recorded is kept, the same scan again goes on\n";
        return kInterrupted;
    }
    if (tree) sayWhatIsLeftOut(*tree, options.verbose);
    if (before > 0 && query.patterns != kAllPaths) sayWhatStaysIn(query);
    if (!options.quiet) sayWhatIsSetAside({query.spaceId});
    return kDone;
}

int dedupe(ScanOptions options, CompressOptions then) {
    options.query.spaceId = spaceFor(options);
    options.quiet = true;
    if (const int exit = scan(options); exit != kDone) return exit;
    then.spaceIds = {options.query.spaceId};
    return compress(then);
}

int forget(const ForgetOptions& options) {
    const std::string& spaceId = options.spaceId;
    requireSpaces({spaceId});
    const Space space = lookAt(spaceId);
    if (space.compressed > 0 && !options.force) {
        throw Failure(counted(space.compressed, "group") +
                      " of links would lose their undo; restore them first, begin anew with "
                      "`ruxctl scan --fresh`, or use --force");
    }
    if (!agreed("Forget " + counted(space.files, "record") + " of " + spaceId + "?", options.yes))
        return kDone;
    if (const auto client = Client::connect(); client) startAfresh(*client, spaceId);
    if (!forgetRecords(spaceId, true))
        throw Failure(spaceId + " cannot be removed: " + strerror(errno));
    std::cerr << "Forgotten; no file has been touched\n";
    return kDone;
}

}  // namespace ruxctl
