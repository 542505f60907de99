#include "ruxctl/database.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <filesystem>
#include <ratio>
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

// One of each record and of each group. Quotes inside of strings are escaped, so in the text these
// stand for members alone, and counting them needs no parser.
constexpr std::string_view kDigestMember = "\"is_md5\":";
constexpr std::string_view kUnread = "\"is_md5\":0";
constexpr std::string_view kListMember = "\"f_list\":";
constexpr std::string_view kRestored = "\"r_flag\":1";

constexpr char kExceptionRules[] = "RUXExceptRules.json";  // beside the spaces

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

/// Sizes and times in nanoseconds of the files, which a save changes.
using Marks = std::array<std::pair<off_t, int64_t>, rux::kDatabaseFiles.size()>;

Marks marksOf(const std::string& spaceId) {
    Marks marks;
    for (size_t i = 0; i < marks.size(); ++i) {
        struct stat st = {};
        stat(pathOf(spaceId, rux::kDatabaseFiles[i]).c_str(), &st);
        marks[i] = {st.st_size, int64_t{st.st_mtim.tv_sec} * std::nano::den + st.st_mtim.tv_nsec};
    }
    return marks;
}

Json::Value parsed(const std::string& text, Json::ValueType type, const std::string& path) {
    Json::Value value;
    if (text.empty()) return Json::Value(type);
    const bool isJson = Json::Reader().parse(text, value, false);
    if (isJson && value.isNull()) return Json::Value(type);  // an image that had no room once
    if (!isJson || value.type() != type)
        throw std::runtime_error(path + " is damaged; remove the space's directory and scan again");
    return value;
}

int64_t countOf(std::string_view text, std::string_view part) {
    int64_t count = 0;
    for (size_t at = text.find(part); at != std::string_view::npos; at = text.find(part, at + 1))
        ++count;
    return count;
}

/// The text without its groups of one path, which are most, and need no parser: only between two
/// paths stand these three characters. A text that the service has not written stays whole.
std::string severalOf(const std::string& text) {
    constexpr std::string_view kBetween = "\",\"";
    std::string several = "{";
    if (!text.ends_with("}}\n")) return text;
    for (size_t at = 1; at < text.size() - 2;) {
        const size_t end = std::min(text.find("},\"", at), text.size() - 3) + 1;
        const std::string_view group = std::string_view(text).substr(at, end - at);
        const size_t object = group.find(":{");
        if (object == std::string_view::npos ||
            group.find(":{", object + 1) != std::string_view::npos)
            return text;
        if (group.find(kBetween) != std::string_view::npos) {
            if (several.size() > 1) several += ',';
            several += group;
        }
        at = end + 1;
    }
    return several + "}";
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
    const SpaceTexts texts(spaceId, {kRecords, kToCompress, kCompressed});
    space.files = recordCount(texts);
    space.directory = commonDirectory(texts[kRecords]);
    space.toCompress = countOf(texts[kToCompress], kListMember);
    space.compressed = countOf(texts[kCompressed], kListMember);
    return space;
}

bool exists(const std::string& spaceId) {
    return fs::is_directory(rux::databaseRoot() + spaceId);
}

int64_t recordCount(const SpaceTexts& texts) {
    return countOf(texts[kRecords], kDigestMember);
}

int64_t setAsideCount(const std::string& spaceId) {
    return countOf(SpaceTexts(spaceId, {kModified})[kModified], kRestored);
}

int64_t unreadCount(const SpaceTexts& texts) {
    return countOf(texts[kRecords], kUnread);
}

std::vector<std::string> recordedPaths(const std::string& spaceId) {
    std::vector<std::string> paths;
    SpaceTexts(spaceId, {kRecords}).forEach(kRecords, [&](const std::string& path, const auto&) {
        paths.push_back(path);
    });
    return paths;
}

SpaceTexts::SpaceTexts(const std::string& spaceId, const std::vector<Image>& images)
      : mSpaceId(spaceId) {
    while (true) {
        const auto before = marksOf(spaceId);
        // What a save is changing, or has left half-written, is whole in its journal.
        const rux::Journal journal(pathOf(spaceId));
        for (const Image image : images) {
            mTexts[image] = journal.holds(image)
                                    ? journal.text(image)
                                    : textOf(pathOf(spaceId, rux::kDatabaseFiles[image]));
        }
        if (journal.state() == rux::Journal::State::Whole || marksOf(spaceId) == before) return;
    }
}

void SpaceTexts::forEach(Image image, const Take& take) const {
    forEachIn(mTexts[image], image, take);
}

void SpaceTexts::forEachIn(const std::string& text, Image image, const Take& take) const {
    constexpr size_t kPiece = size_t{1} << 16;
    const std::string path = pathOf(mSpaceId, rux::kDatabaseFiles[image]);
    for (size_t at = 0; at < text.size();) {
        // Between two members of the whole, unless somebody has written members of members.
        const size_t end = text.find("},\"", at + kPiece);
        const std::string start = at > 0 ? "{" : "";
        Json::Value piece;
        const bool isCut =
                end != std::string::npos &&
                Json::Reader().parse(start + text.substr(at, end + 1 - at) + "}", piece, false) &&
                piece.isObject();
        if (!isCut) piece = parsed(start + text.substr(at), Json::objectValue, path);
        at = isCut ? end + 2 : text.size();
        for (auto member = piece.begin(); member != piece.end(); ++member)
            take(member.name(), *member);
    }
}

void SpaceTexts::forEachGroup(Image image, const TakeGroup& take) const {
    forEachIn(severalOf(mTexts[image]), image, [&take](const auto& digest, const auto& group) {
        if (!group.isObject() || !group["f_list"].isArray()) return;
        std::vector<std::string> paths;
        for (const Json::Value& path : group["f_list"]) {
            if (path.isString()) paths.push_back(path.asString());
        }
        if (paths.size() < 2) return;
        const Json::Value& bytes = group["f_size"];
        take(digest, bytes.isInt64() ? bytes.asInt64() : 0, std::move(paths));
    });
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
    const std::string path = pathOf(kExceptionRules);
    const Json::Value value = parsed(textOf(path), Json::arrayValue, path);
    for (const Json::Value& rule : value) {
        if (rule.isString()) rules.push_back(rule.asString());
    }
    return rules;
}

bool removeExceptionRules() {
    return unlink(pathOf(kExceptionRules).c_str()) == 0 || errno == ENOENT;
}

}  // namespace ruxctl
