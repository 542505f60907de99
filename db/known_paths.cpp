#include "db/known_paths.h"

#include <algorithm>

#include "control/properties.h"
#include "db/images.h"
#include "db/json_text.h"
#include "db/records.h"
#include "tavo_f2fs_io.h"

namespace rux {
namespace {

template <typename Take>
void forEachMember(const Image& image, const Take& take) {
    if (!image->isObject()) return;
    for (auto member = image->begin(); member != image->end(); ++member) {
        const char* end = nullptr;
        const char* const name = member.memberName(&end);
        take(std::string_view(name, static_cast<size_t>(end - name)), *member);
    }
}

template <typename Take>
void forEachGroup(const Image& image, const Take& take) {
    forEachMember(image, [&take](std::string_view digest, const Json::Value& group) {
        const Json::Value* const paths = groupPaths(group);
        if (paths != nullptr) take(digest, group, *paths);
    });
}

/// Whether a path or one of the directories that it names is among the places.
bool isBelow(std::string_view path, const std::set<std::string_view>& places) {
    while (!path.empty() && !places.contains(path)) {
        const size_t slash = path.rfind('/');
        if (slash == 0 || slash == std::string_view::npos) return false;
        path = path.substr(0, slash);
    }
    return !path.empty();
}

}  // namespace

bool KnownPath::holds(const struct stat& status) const {
    if (!isFinished) return false;
    if (wasRestored) return status.st_nlink <= 1;
    if (wasRetired) return false;
    if (fileBytes >= 0) return status.st_size == fileBytes && status.st_mtime == mtimeSeconds;
    if (isAmbiguous() && status.st_nlink == 1) return false;  // it may have to be linked
    return std::any_of(linkedAs.begin(), linkedAs.end(),
                       [&](const LinkedGroup* group) { return isMemberOf(*group, status); });
}

bool KnownPath::isMemberOf(const LinkedGroup& group, const struct stat& status) const {
    const bool isOfTime =
            (hasRecord && status.st_mtime == mtimeSeconds) || group.times.contains(status.st_mtime);
    return isOfTime && group.fileBytes == status.st_size;
}

std::string KnownPath::apartFrom(const struct stat& status) const {
    if (fileBytes >= 0 || wasRestored || status.st_nlink > 1 || linkedAs.empty()) return {};
    return std::string(linkedAs[0]->digest);
}

KnownPaths::KnownPaths() {
    if (fileInfoDB->isObject()) mPaths.reserve(fileInfoDB->size());
    forEachMember(fileInfoDB, [this](std::string_view path, const Json::Value& record) {
        KnownPath& known = mPaths[path];
        known.hasRecord = true;
        known.isFinished = hasDigest(record);
        known.mtimeSeconds = mtimeSecondsOf(record);
    });
    forEachGroup(checkNoCompressDB, [this](auto, const Json::Value& group, auto& paths) {
        const int64_t fileBytes = groupFileBytes(group);
        for (const Json::Value& path : paths) mPaths[stringOf(path)].fileBytes = fileBytes;
    });
    forEachGroup(checkACompressDB, [this](auto digest, const Json::Value& group, auto& paths) {
        LinkedGroup& linked = mLinked[digest];
        linked = {digest, groupFileBytes(group), &paths, {}};
        for (const Json::Value& path : paths) {
            std::vector<const LinkedGroup*>& groups = mPaths[stringOf(path)].linkedAs;
            if (groups.empty() || groups.back() != &linked) groups.push_back(&linked);
        }
    });
    for (auto& [digest, linked] : mLinked) {
        for (const Json::Value& path : *linked.paths) {
            const KnownPath& known = *find(stringOf(path));
            if (known.hasRecord && !known.isAmbiguous()) linked.times.insert(known.mtimeSeconds);
        }
    }
    forEachMember(modifyFileInfoDB, [this](std::string_view path, const Json::Value& entry) {
        const std::optional<Mark> mark = markOf(entry);
        KnownPath& known = mPaths[path];
        known.wasRetired = mark == Mark::Retired;
        known.wasRestored = mark == Mark::Restored;
    });
}

KnownPath* KnownPaths::find(std::string_view path) {
    const auto found = mPaths.find(path);
    return found != mPaths.end() ? &found->second : nullptr;
}

/// Whether the file at a path still has the content of the group.
bool KnownPaths::hasContent(const KnownPath& known, const std::string& path,
                            const LinkedGroup& group, const struct stat& status) {
    // In a group of DB2 it is in this one already, or has changed.
    if (known.fileBytes >= 0 || !known.isMemberOf(group, status)) return false;
    if (!known.isAmbiguous()) return true;
    std::string& digest = mDigests[{status.st_dev, status.st_ino}];
    if (digest.empty()) digest = computeFileMD5(path.c_str(), toolLogEnabled).md5;
    return digest == group.digest;
}

std::vector<std::string> KnownPaths::takeLinked(const std::string& digest) {
    std::vector<std::string> linked;
    const auto found = mLinked.find(digest);
    if (found == mLinked.end()) return linked;
    for (const Json::Value& entry : *found->second.paths) {
        std::string path = pathOf(entry);
        struct stat status = {};
        const KnownPath& known = *find(stringOf(entry));
        if (stat(path.c_str(), &status) != 0 || !hasContent(known, path, found->second, status))
            continue;
        if (known.taken == nullptr) {
            Json::Value& record = asObject(fileInfoDB.change())[path];
            makeFileRecord(record, status.st_mtime, path);
            setHasDigest(record);
        }
        linked.push_back(std::move(path));
    }
    return linked;
}

/// Whether a path stays in the group of that digest in DB2.
bool KnownPaths::stays(std::string_view path, std::string_view digest, const Places& places) {
    KnownPath* const known = find(path);
    if (known == nullptr) return true;  // the walk has brought it
    if (known->taken != nullptr ? *known->taken == digest : known->isMet || !isBelow(path, places))
        return true;
    // The next compression replaces what DB3 has under this digest.
    struct stat status = {};
    const bool isThere = stat(std::string(path).c_str(), &status) == 0;
    const auto isOne = [&](const LinkedGroup* group) {
        return group->digest == digest && known->isMemberOf(*group, status);
    };
    const bool isUndo = isThere && status.st_nlink > 1 &&
                        std::any_of(known->linkedAs.begin(), known->linkedAs.end(), isOne);
    known->isMet = known->isMet || isUndo;
    return isUndo;
}

/// The groups of DB2 that lose members, with the paths that stay.
std::vector<std::pair<std::string, Json::Value>> KnownPaths::groupsLosing(const Places& places) {
    std::vector<std::pair<std::string, Json::Value>> groups;
    forEachGroup(checkNoCompressDB, [&](auto digest, auto&, const Json::Value& paths) {
        const auto leaves = [&](const Json::Value& path) {
            return path.isString() && !stays(stringOf(path), digest, places);
        };
        if (std::none_of(paths.begin(), paths.end(), leaves)) return;
        Json::Value staying(Json::arrayValue);
        for (const Json::Value& path : paths) {
            if (!leaves(path)) staying.append(path);
        }
        groups.emplace_back(digest, std::move(staying));
    });
    return groups;
}

void KnownPaths::removeStale(const std::vector<std::string>& walked) {
    const Places places(walked.begin(), walked.end());
    const auto isGone = [&places](const auto& path) {
        return !path.second.isMet && isBelow(path.first, places);
    };
    const auto isStale = [&isGone](const auto& path) {
        return path.second.taken != nullptr || isGone(path);
    };
    if (std::none_of(mPaths.begin(), mPaths.end(), isStale)) return;
    auto groups = groupsLosing(places);
    std::vector<std::string> gone;
    std::vector<std::string> unmarked;
    for (const auto& path : mPaths) {
        if (isGone(path)) gone.emplace_back(path.first);
        if (isStale(path)) unmarked.emplace_back(path.first);
    }
    mPaths.clear();  // before what its names refer to goes
    for (auto& [digest, paths] : groups) {
        if (paths.empty()) {
            checkNoCompressDB.remove(digest);
        } else {
            checkNoCompressDB.change()[digest]["f_list"] = std::move(paths);
        }
    }
    for (const std::string& path : gone) fileInfoDB.remove(path);
    for (const std::string& path : unmarked) modifyFileInfoDB.remove(path);
}

}  // namespace rux
