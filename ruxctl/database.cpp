#include "ruxctl/database.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <filesystem>
#include <initializer_list>
#include <stdexcept>
#include <string_view>
#include <utility>

#include "android-base/unique_fd.h"
#include "db/database_root.h"
#include "db/files.h"
#include "db/journal.h"

namespace ruxctl {
namespace {

namespace fs = std::filesystem;

/// The places of the files among a space's.
enum : size_t { kRecords, kToCompress, kCompressed, kModified };
// One of each record and of each group. Quotes inside of strings are escaped, so in the text these
// stand for members alone, and counting them needs no parser.
constexpr std::string_view kDigestMember = "\"is_md5\":";
constexpr std::string_view kListMember = "\"f_list\":";
constexpr std::string_view kRestored = "\"r_flag\":1";

std::string pathOf(const std::string& spaceId, const char* file = "") {
    return rux::databaseRoot() + spaceId + file;
}

/// The text of a file, empty when there is none.
std::string textOf(const std::string& path) {
    const android::base::unique_fd file(open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
    struct stat st = {};
    std::string text;
    if (fstat(file.get(), &st) != 0) return text;
    rux::readPieces(file.get(), 0, static_cast<uint64_t>(st.st_size),
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

int64_t countOf(std::string_view text, std::string_view part) {
    int64_t count = 0;
    for (size_t at = text.find(part); at != std::string_view::npos; at = text.find(part, at + 1))
        ++count;
    return count;
}

/// The directory below which all paths lie that the text has records of. They are sorted there.
std::string commonDirectory(const std::string& text) {
    constexpr std::string_view kEnd = "\":{";  // of a path; its quotes would be escaped
    const size_t end = text.rfind(kEnd);
    if (end == std::string::npos) return {};
    const size_t before = text.rfind("},\"", end);
    const size_t start = before == std::string::npos ? 1 : before + 2;
    Json::Value paths;
    Json::Reader().parse("[" + text.substr(1, text.find(kEnd)) + "," +
                                 text.substr(start, end - start + 1) + "]",
                         paths, false);
    if (!paths.isArray() || paths.size() != 2 || !paths[0].isString() || !paths[1].isString())
        return {};
    const std::string first = paths[0].asString();
    const std::string last = paths[1].asString();
    const auto common = std::mismatch(first.begin(), first.end(), last.begin(), last.end()).first;
    const std::string directory(first.begin(), common);
    return directory.substr(0, std::max<size_t>(1, directory.rfind('/')));
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
    space.directory = commonDirectory(texts[kRecords]);
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

int64_t setAsideCount(const std::string& spaceId) {
    return countOf(textsOf(spaceId, {kModified})[kModified], kRestored);
}

std::vector<std::string> recordedPaths(const std::string& spaceId) {
    return parsed(textsOf(spaceId, {kRecords}), kRecords, spaceId).getMemberNames();
}

int64_t numberOf(const Json::Value& object, const char* name) {
    const Json::Value& number = object[name];
    return number.isInt64() ? number.asInt64() : 0;
}

SpaceImages imagesOf(const std::string& spaceId, bool all) {
    const Texts texts = all ? textsOf(spaceId, {kRecords, kToCompress, kCompressed})
                            : textsOf(spaceId, {kCompressed});
    return {spaceId, parsed(texts, kRecords, spaceId), parsed(texts, kToCompress, spaceId),
            parsed(texts, kCompressed, spaceId)};
}

bool forgetRecords(const std::string& spaceId, bool links) {
    if (links) {
        rux::Journal(pathOf(spaceId)).drop();
        unlink((pathOf(spaceId, rux::kDatabaseFiles[kCompressed]) + rux::kDamagedSuffix).c_str());
    }
    for (size_t i = 0; i < rux::kDatabaseFiles.size(); ++i) {
        if (i == kCompressed && !links) continue;
        if (unlink(pathOf(spaceId, rux::kDatabaseFiles[i]).c_str()) != 0 && errno != ENOENT)
            return false;
    }
    return !links || rmdir(pathOf(spaceId).c_str()) == 0;
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
