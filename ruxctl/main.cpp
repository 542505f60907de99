// ruxctl: the service's client for the command line.

#include <CLI/CLI.hpp>
#include <functional>
#include <iostream>

#include "ruxctl/client.h"
#include "ruxctl/commands.h"
#include "ruxctl/generated.h"
#include "ruxctl/operation.h"
#include "ruxctl/units.h"

namespace ruxctl {
namespace {

/// The command line under construction: each function adds a subcommand, and the one that is met
/// sets `action`.
class CommandLine {
  public:
    CommandLine() {
        mApp.require_subcommand(1);
        mApp.footer(kExitStatuses);
        mApp.set_version_flag("--version", "ruxctl " RUX_VERSION);
        addDedupe();
        addScan();
        addList();
        addGroups();
        addCompress();
        addRestore();
        addForget();
        addExcept();
        addStatus();
        addReport();
        addStop();
        addProperties();
        addCall();
        addGenerated();
    }

    int run(int argc, char** argv) {
        try {
            mApp.parse(argc, argv);
        } catch (const CLI::ParseError& error) {
            const bool isRequired =
                    error.get_exit_code() == static_cast<int>(CLI::ExitCodes::RequiredError);
            if (isRequired && argc > 1 && mApp.get_subcommands().empty())
                throw Failure(std::string("there is no command ") + argv[1] +
                                      "; see `ruxctl --help`",
                              kUsage);
            return mApp.exit(error) == 0 ? kDone : kUsage;
        }
        return mAction();
    }

  private:
    static constexpr char kExitStatuses[] =
            "Exit status: 0 done, 1 failed, 2 wrong usage, 3 no service answers, 4 refused because "
            "another\noperation runs, 130 stopped early. RUX_ROOT names the root whose service "
            "is meant.";

    CLI::App* add(const char* name, const char* description, const char* examples,
                  std::function<int()> action = nullptr) {
        CLI::App* command = mApp.add_subcommand(name, description);
        if (action) does(command, std::move(action));
        command->footer(*examples != '\0' ? std::string("Examples:\n") + examples : "");
        return command;
    }
    void does(CLI::App* command, std::function<int()> action) {
        command->callback([this, action = std::move(action)] { mAction = action; });
    }
    static CLI::Option* addSpace(CLI::App* command, std::string& spaceId) {
        return command->add_option("--space", spaceId, "The space: the name of a database")
                ->type_name("NAME")
                ->required();
    }
    /// An option with one value, which may be repeated.
    static CLI::Option* addEach(CLI::App* command, const char* name,
                                std::vector<std::string>& values, const char* type,
                                const char* description) {
        return command->add_option(name, values, description)
                ->type_name(type)
                ->allow_extra_args(false);
    }
    static void addSpaces(CLI::App* command, std::vector<std::string>& spaceIds) {
        addEach(command, "--space", spaceIds, "NAME", "Only this space; may be repeated");
    }
    static CLI::Option* addMatch(CLI::App* command, std::vector<std::string>& patterns) {
        return addEach(command, "--match", patterns, "REGEX",
                       "Regular expression (ECMAScript) of whole paths; may be repeated");
    }
    static void addYes(CLI::App* command, bool& yes) {
        command->add_flag("-y,--yes", yes, "Answer the question with yes");
    }
    static void addWait(CLI::App* command) {
        command->add_flag_callback("--wait", waitWhenBusy, "Wait while the service is busy");
    }
    CLI::Option* addScanOptions(CLI::App* command) {
        addMatch(command, mScan.query.patterns);
        const auto isText = [](const std::string& glob) {
            return glob.empty() ? std::string("is empty") : std::string();
        };
        addEach(command, "--include", mScan.included, "GLOB",
                "Only such names, or what is below them")
                ->check(isText);
        addEach(command, "--exclude", mScan.excluded, "GLOB",
                "No such names, nor what is below them")
                ->check(isText);
        const auto addSize = [command](const char* name, uint64_t& bytes, const char* text) {
            command->add_option(name, bytes, text)
                    ->type_name("SIZE")
                    ->transform(CLI::Validator(
                            [](std::string& size) {
                                const auto number = bytesOf(size);
                                if (!number)
                                    return size + " is no size, as 100000, 64KiB or 1.5GiB";
                                size = std::to_string(*number);
                                return std::string();
                            },
                            ""));
        };
        addSize("--min-size", mScan.reach.minBytes, "No smaller files: 100000, 64KiB, 2MiB");
        addSize("--max-size", mScan.reach.maxBytes, "No larger files");
        command->add_flag("-x,--one-file-system", mScan.reach.staysOnFileSystem,
                          "No directories on other file systems");
        command->add_flag("--follow", mScan.reach.followsLinks, "Follow symbolic links");
        command->add_flag_callback(
                "--no-refresh", [this] { mScan.refreshes = false; },
                "Leave alone what was recorded before, though it has changed or is gone");
        command->add_flag("--fresh", mScan.fresh, "Find all files anew, and forget what was known");
        command->add_flag("--force", mScan.force,
                          "With --fresh: even if links may lose their undo");
        command->add_flag_callback(
                "--no-progress", [this] { mScan.progress = false; },
                "Do not count the files beside the scan");
        command->add_flag("-v,--verbose", mScan.verbose, "Name what is left out");
        command->add_option("--files-from", mScan.listFile,
                            "Also the paths that this file lists, one a line; - is standard input")
                ->type_name("FILE");
        command->add_flag("-0,--null", mScan.listHasZeros,
                          "They end with a zero byte, as find -print0 writes");
        addWait(command);
        return command->add_option("DIR", mScan.query.places,
                                   "Directories or files; of equal files the first is kept");
    }

    void addCompressOptions(CLI::App* command) {
        addYes(command, mCompress.yes);
        command->add_flag("-n,--dry-run", mCompress.dryRun, "Print what would be linked");
        command->add_flag("--json", mCompress.json, "Print JSON");
    }

    void addDedupe() {
        CLI::App* command = add("dedupe", "Scan directories and link their duplicates, in one go",
                                "  ruxctl dedupe ~/Pictures\n"
                                "  ruxctl dedupe --dry-run --exclude node_modules ~/src",
                                [this] { return dedupe(mScan, mCompress); });
        addScanOptions(command);
        addCompressOptions(command);
    }

    void addScan() {
        CLI::App* command = add("scan", "Record the files below directories, with a digest of each",
                                "  ruxctl scan --space photos ~/Pictures\n"
                                "  ruxctl scan --space music --include '*.flac' /srv/music ~/Music",
                                [this] { return scan(mScan); });
        addSpace(command, mScan.query.spaceId);
        addScanOptions(command)->description("Directories or files (what is recorded)");
    }

    void addForget() {
        CLI::App* command = add("forget", "Forget what is known of a space; files stay as they are",
                                "  ruxctl forget photos", [this] { return forget(mForget); });
        command->add_option("NAME", mForget.spaceId, "The space")->required();
        addYes(command, mForget.yes);
        command->add_flag("--force", mForget.force, "Even if links lose their undo");
    }

    void addList() {
        CLI::App* command = add("list", "Count what can be linked, after a look at each file",
                                "  ruxctl list\n"
                                "  ruxctl list --space photos --json",
                                [this] { return list(mList); });
        addSpaces(command, mList.spaceIds);
        addMatch(command, mList.patterns);
        command->add_flag("--json", mList.json, "Print JSON");
        command->add_flag("--bytes", mList.bytes, "Print exact numbers");
    }

    void addGroups() {
        CLI::App* command =
                add("groups", "Show the groups of equal files and what became of each file",
                    "  ruxctl groups --space photos --top 10\n"
                    "  ruxctl groups --csv > duplicates.csv",
                    [this] { return groups(mGroups); });
        addSpaces(command, mGroups.spaceIds);
        command->add_option("--sort", mGroups.sort, "By reclaimable size or number of files")
                ->type_name("ORDER")
                ->check(CLI::IsMember({"size", "count"}));
        command->add_option("--top", mGroups.top, "Only so many")
                ->type_name("N")
                ->check(CLI::Range(1, 1'000'000'000).description(""));
        command->add_flag("--all", mGroups.all, "Those with nothing to give back as well");
        const std::pair<const char*, const char*> formats[] =
                {{"json", "Print JSON"},
                 {"csv", "Print comma-separated values"},
                 {"null", "Print paths, each ended by a zero byte (for xargs -0)"}};
        std::vector<CLI::Option*> others;
        for (const auto& [format, description] : formats) {
            CLI::Option* option = command->add_flag_callback(
                    std::string("--") + format, [this, name = format] { mGroups.format = name; },
                    description);
            for (CLI::Option* other : others) option->excludes(other);
            others.push_back(option);
        }
    }

    void addCompress() {
        CLI::App* command =
                add("compress", "Link the duplicates of spaces: one file of each group is kept",
                    "  ruxctl compress --dry-run photos\n"
                    "  ruxctl compress photos",
                    [this] { return compress(mCompress); });
        command->add_option("NAME", mCompress.spaceIds, "Spaces")->required();
        addCompressOptions(command);
        addWait(command);
    }

    void addRestore() {
        CLI::App* command = add("restore", "Give linked files data of their own again",
                                "  ruxctl restore ~/Pictures/2024\n"
                                "  ruxctl restore --space photos --match '.*\\.raw' --under /2024/",
                                [this] { return restore(mRestore); });
        addSpace(command, mRestore.query.spaceId)->required(false);
        command->add_option("DIR", mRestore.below, "Only groups with a path below one of these");
        addMatch(command, mRestore.query.patterns)->allow_extra_args(true);
        addEach(command, "--under", mRestore.query.places, "TEXT",
                "Only groups with a path that contains this text; may be repeated");
        addYes(command, mRestore.yes);
        command->add_flag("-n,--dry-run", mRestore.dryRun, "Print what would be restored");
        command->add_flag("--json", mRestore.json, "Print JSON");
        command->add_flag("-v,--verbose", mRestore.verbose, "Name what is restored");
        addWait(command);
        command->add_flag("--force", mRestore.force, "Go on without enough room");
    }

    void addExcept() {
        CLI::App* command = add("except", "Patterns of files that scans leave alone",
                                "  ruxctl except check '.*/\\.git/.*' ~/src/project/.git/config\n"
                                "  ruxctl except add '.*/\\.git/.*'\n"
                                "  ruxctl except show");
        command->require_subcommand(1);
        const auto addPart = [command](const char* name, const char* description) {
            return command->add_subcommand(name, description)->footer("");
        };
        does(addPart("show", "Print the patterns"), showExceptRules);
        const auto addSetter = [&](const char* name, const char* description, bool adds) {
            CLI::App* setter = addPart(name, description);
            setter->add_option("REGEX", mPatterns, "Regular expressions of whole paths")
                    ->required();
            does(setter, [this, adds] { return setExceptRules(mPatterns, adds); });
        };
        addSetter("add", "Add patterns to those that are set", true);
        addSetter("set", "Set these patterns and no others", false);
        CLI::App* remove = addPart("remove", "Take patterns out of those that are set");
        remove->add_option("REGEX", mPatterns)->required();
        does(remove, [this] { return removeExceptRules(mPatterns); });
        CLI::App* check = addPart("check", "Try a pattern before it is set; changes nothing");
        check->add_option("REGEX", mName)->required();
        check->add_option("PATH", mPaths, "What to try it on (all recorded files)");
        does(check, [this] { return checkExceptRule(mName, mPaths); });
    }

    void addStatus() {
        CLI::App* command =
                add("status",
                    "Say whether the service is up, what runs, and which spaces there are",
                    "  ruxctl status --json", [this] { return status(mCompress.json); });
        command->add_flag("--json", mCompress.json, "Print JSON");
    }

    void addReport() {
        CLI::App* command = add("report", "Write a page to look at: space by directory, the groups",
                                "  ruxctl report --html duplicates.html",
                                [this] { return report(mName, mList.spaceIds); });
        command->add_option("--html", mName, "The page's file; - is standard output")
                ->type_name("FILE")
                ->required();
        addSpaces(command, mList.spaceIds);
    }

    void addStop() {
        CLI::App* command = add("stop", "End a running operation early; what was done stays",
                                "  ruxctl stop scan", [this] { return stop(mName); });
        command->add_option("OPERATION", mName, "scan, list or compress")
                ->required()
                ->check(CLI::IsMember({"scan", "list", "compress"}));
    }

    void addProperties() {
        CLI::App* get = add("getprop", "Print a system property",
                            "  ruxctl getprop sys.ruxservice.compress.prog",
                            [this] { return getProperty(mName); });
        get->add_option("NAME", mName)->required();
        CLI::App* set = add("setprop", "Set a system property",
                            "  ruxctl setprop sys.ruxservice.enablelog.ctrl true",
                            [this] { return setProperty(mName, mValue); });
        set->add_option("NAME", mName)->required();
        set->add_option("VALUE", mValue)->required();
    }

    void addCall() {
        CLI::App* command = add("call", "Send one transaction and print its result",
                                "  ruxctl call 3 '[\"photos\"]'\n"
                                "  ruxctl call 5");
        command->add_option("CODE", mCode, "Transaction code")->required();
        CLI::Option* text =
                command->add_option("REQUEST", mValue, "Request text; - reads standard input");
        CLI::Option* hex = command->add_option("--hex", mHex,
                                               "Request parcel in hexadecimal; - reads standard "
                                               "input")
                                   ->type_name("BYTES")
                                   ->excludes(text);
        does(command, [this, text, hex] {
            if (hex->count() > 0) return callHex(mCode, mHex);
            if (text->count() > 0) return callText(mCode, mValue);
            return callText(mCode, std::nullopt);
        });
    }

    void addGenerated() {
        CLI::App* command =
                mApp.add_subcommand("manual", "Print the manual page's part on commands");
        command->group("");  // for the build, not for people
        does(command, [this] { return printManual(mApp); });
        command = mApp.add_subcommand("candidates", "Print what may stand behind such words");
        command->group("");
        command->add_option("WORD", mPaths);
        does(command, [this] { return printCandidates(mPaths, mApp); });
    }

    CLI::App mApp{"Finds files of identical content, links them, and takes that back.", "ruxctl"};
    std::function<int()> mAction;
    ScanOptions mScan;
    ForgetOptions mForget;
    ListOptions mList;
    GroupsOptions mGroups;
    CompressOptions mCompress;
    RestoreOptions mRestore;
    std::vector<std::string> mPatterns;
    std::vector<std::string> mPaths;
    std::string mName;
    std::string mValue;
    std::string mHex;
    uint32_t mCode = 0;
};

}  // namespace
}  // namespace ruxctl

int main(int argc, char** argv) {
    int exit = ruxctl::kFailed;
    try {
        exit = ruxctl::CommandLine().run(argc, argv);
        if (!std::cout.flush()) throw ruxctl::Failure("standard output cannot be written");
    } catch (const ruxctl::Failure& failure) {
        exit = failure.exit;
        std::cout << std::flush;
        std::cerr << "ruxctl: " << failure.what() << "\n";
    } catch (const std::exception& error) {
        std::cerr << "ruxctl: " << error.what() << "\n";
    }
    return exit;
}
