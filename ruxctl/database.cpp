#include "ruxctl/database.h"

#include <fcntl.h>
#include <json/json.h>
#include <sys/stat.h>

#include <algorithm>
#include <array>
#include <filesystem>
#include <initializer_list>
#include <map>
#include <stdexcept>
#include <string_view>
#include <utility>

#include "db/database_root.h"
#include "db/files.h"
#include "db/journal.h"
#include "ruxctl/json.h"

namespace ruxctl {
namespace {

namespace fs = std::filesystem;

/// The places of the files among a space's.
enum : size_t { kRecords, kToCompress, kCompressed };
// One of each record and of each group. Quotes inside of strings are escaped, so in the text these
// stand for members alone, and counting them needs no parser.
constexpr std::string_view kDigestMember = "\"is_md5\":";
constexpr std::string_view kListMember = "\"f_list\":";

std::string pathOf(const std::string& spaceId, const char* file = "") {
    return rux::databaseRoot() + spaceId + file;
}

/// The text of a file, empty when there is none.
std::string textOf(const std::string& path) {
    const rux::File file(open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
    struct stat st = {};
    std::string text;
    if (fstat(file.get(), &st) != 0) return text;
    rux::readPieces(file, 0, static_cast<uint64_t>(st.st_size),
                    [&text](std::string_view piece) { text += piece; });
    return text;
}

using Texts = std::array<std::string, rux::kDatabaseFiles.size()>;
/// Sizes and times in nanoseconds of the files, which a save changes.
using Marks = std::array<std::pair<off_t, int64_t>, rux::kDatabaseFiles.size()>;

Marks marksOf(const std::string& spaceId) {
    Marks marks;
    for (size_t i = 0; i < marks.size(); ++i) {
        struct stat st = {};
        stat(pathOf(spaceId, rux::kDatabaseFiles[i]).c_str(), &st);
        marks[i] = {st.st_size, int64_t{st.st_mtim.tv_sec} * 1'000'000'000 + st.st_mtim.tv_nsec};
    }
    return marks;
}

/// The texts of the wanted files of a space, all of one moment. That of a missing file is empty.
Texts textsOf(const std::string& spaceId, std::initializer_list<size_t> wanted) {
    for (Texts texts;;) {
        const auto before = marksOf(spaceId);
        // What a save is changing, or has left half-written, is whole in its journal.
        const rux::Journal journal(pathOf(spaceId));
        for (const size_t i : wanted) {
            texts[i] = journal.holds(i) ? journal.text(i)
                                        : textOf(pathOf(spaceId, rux::kDatabaseFiles[i]));
        }
        if (journal.state() == rux::Journal::State::Whole || marksOf(spaceId) == before)
            return texts;
    }
}

Json::Value parsed(const std::string& text, Json::ValueType type, const std::string& path) {
    Json::Value value;
    if (text.empty()) return Json::Value(type);
    if (!Json::Reader().parse(text, value, false) || value.type() != type)
        throw std::runtime_error(path + " is damaged; remove the space's directory and scan again");
    return value;
}
Json::Value parsed(const Texts& texts, size_t file, const std::string& spaceId) {
    return parsed(texts[file], Json::objectValue, pathOf(spaceId, rux::kDatabaseFiles[file]));
}

Member lookedUp(const std::string& path, int64_t fileBytes, const Json::Value& record) {
    Member member;
    member.path = path;
    struct stat st = {};
    if (stat(path.c_str(), &st) != 0) return member;
    const bool isNewer = record.isObject() && record["s_time"].isInt64() &&
                         record["s_time"].asInt64() != st.st_mtime;
    const bool isSame = S_ISREG(st.st_mode) && st.st_size == fileBytes && !isNewer;
    member.state = isSame ? State::There : State::Changed;
    member.file = {st.st_dev, st.st_ino};
    member.links = static_cast<int64_t>(st.st_nlink);
    member.access = {st.st_uid, st.st_gid, st.st_mode};
    return member;
}

/// Tells files of one's own from links, and adds up.
void takeStock(Group& group) {
    std::map<FileId, std::pair<int64_t, int64_t>> files;  // paths that lead there, and names
    for (const Member& member : group.members) {
        if (!member.isPresent()) continue;
        ++group.present;
        auto& [paths, names] = files[member.file];
        ++paths;
        names = member.links;
    }
    for (Member& member : group.members) {
        if (member.isPresent() && files[member.file].first > 1) member.state = State::Linked;
    }
    group.files = static_cast<int64_t>(files.size());
    group.reclaimable = std::max<int64_t>(group.files - 1, 0) * group.fileBytes;
    for (const auto& [file, counts] : files)
        group.given += (std::min(counts.first, counts.second) - 1) * group.fileBytes;
}

void addGroups(const std::string& spaceId, bool compressed, const Texts& texts,
               std::vector<Group>& groups) {
    const Json::Value records = compressed ? Json::Value() : parsed(texts, kRecords, spaceId);
    const Json::Value all = parsed(texts, compressed ? kCompressed : kToCompress, spaceId);
    for (auto entry = all.begin(); entry != all.end(); ++entry) {
        const Json::Value& paths = entry->isObject() ? (*entry)["f_list"] : *entry;
        if (!entry->isObject() || !paths.isArray() || paths.size() < 2) continue;
        Group group;
        group.spaceId = spaceId;
        group.digest = entry.name();
        group.fileBytes = numberOf(*entry, "f_size");
        group.compressed = compressed;
        for (const Json::Value& path : paths) {
            if (!path.isString()) continue;
            // A link has the time of the file that was kept, not the recorded one of its own.
            const Json::Value& record =
                    compressed ? Json::Value::nullSingleton() : records[path.asString()];
            group.members.push_back(lookedUp(path.asString(), group.fileBytes, record));
        }
        takeStock(group);
        groups.push_back(std::move(group));
    }
}

/// Adds the regular files that the group's paths lead to right now.
void addUse(const Group& group, DiskUse& use) {
    for (const Member& member : group.members) {
        struct stat st = {};
        if (lstat(member.path.c_str(), &st) != 0 || !S_ISREG(st.st_mode)) continue;
        FileUse& file = use[{st.st_dev, st.st_ino}];
        file.allocated = int64_t{st.st_blocks} * 512;
        file.links = static_cast<int64_t>(st.st_nlink);
        ++file.names;
    }
}

int64_t countOf(std::string_view text, std::string_view part) {
    int64_t count = 0;
    for (size_t at = text.find(part); at != std::string_view::npos; at = text.find(part, at + 1))
        ++count;
    return count;
}

}  // namespace

std::vector<std::string> spaceIds() {
    std::vector<std::string> found;
    std::error_code error;
    for (const auto& entry : fs::directory_iterator(rux::databaseRoot(), error)) {
        const std::string id = entry.path().filename();
        if (std::any_of(rux::kDatabaseFiles.begin(), rux::kDatabaseFiles.end(),
                        [&id](const char* file) { return fs::exists(pathOf(id, file)); })) {
            found.push_back(id);
        }
    }
    std::sort(found.begin(), found.end());
    return found;
}

Space lookAt(const std::string& spaceId) {
    Space space;
    space.id = spaceId;
    for (const char* file : rux::kDatabaseFiles) {
        struct stat st = {};
        if (stat(pathOf(spaceId, file).c_str(), &st) != 0) continue;
        space.bytes += st.st_size;
        space.changed = std::max(space.changed, st.st_mtime);
    }
    const Texts texts = textsOf(spaceId, {kRecords, kToCompress, kCompressed});
    space.files = countOf(texts[kRecords], kDigestMember);
    space.toCompress = countOf(texts[kToCompress], kListMember);
    space.compressed = countOf(texts[kCompressed], kListMember);
    return space;
}

bool exists(const std::string& spaceId) {
    return fs::is_directory(rux::databaseRoot() + spaceId);
}

int64_t recordCount(const std::string& spaceId) {
    return countOf(textsOf(spaceId, {kRecords})[kRecords], kDigestMember);
}

std::vector<std::string> recordedPaths(const std::string& spaceId) {
    return parsed(textsOf(spaceId, {kRecords}), kRecords, spaceId).getMemberNames();
}

const char* nameOf(State state) {
    switch (state) {
        case State::There:
            return "there";
        case State::Linked:
            return "linked";
        case State::Changed:
            return "changed";
        case State::Gone:
            break;
    }
    return "gone";
}

std::vector<Group> groupsOf(const std::string& spaceId, Which which) {
    const Texts texts = which == Which::Compressed
                                ? textsOf(spaceId, {kCompressed})
                                : textsOf(spaceId, {kRecords, kToCompress, kCompressed});
    std::vector<Group> groups;
    if (which != Which::Compressed) addGroups(spaceId, false, texts, groups);
    if (which != Which::ToCompress) addGroups(spaceId, true, texts, groups);
    return groups;
}

DiskUse diskUse(const std::vector<Group>& groups) {
    DiskUse use;
    for (const Group& group : groups) addUse(group, use);
    return use;
}

DiskUse diskUse(const Group& group) {
    DiskUse use;
    addUse(group, use);
    return use;
}

int64_t givenBack(const DiskUse& before, const DiskUse& after) {
    int64_t bytes = 0;
    for (const auto& [file, use] : before) {
        if (after.count(file) == 0 && use.links <= use.names) bytes += use.allocated;
    }
    return bytes;
}

int64_t takenUpByRestore(const DiskUse& use) {
    int64_t bytes = 0;
    for (const auto& [file, name] : use) {
        // The last of its names keeps the file, unless it has others elsewhere. A name that is
        // reached by two paths is still one.
        bytes += name.allocated * (name.links > name.names ? name.names : name.links - 1);
    }
    return bytes;
}

std::vector<std::string> exceptionRules() {
    std::vector<std::string> rules;
    const std::string path = rux::databaseRoot() + "RUXExceptRules.json";
    const Json::Value value = parsed(textOf(path), Json::arrayValue, path);
    for (const Json::Value& rule : value) {
        if (rule.isString()) rules.push_back(rule.asString());
    }
    return rules;
}

}  // namespace ruxctl
