#include "ruxctl/groups.h"

#include <json/json.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <map>
#include <set>

#include "f2fs_io/hard_link.h"
#include "ruxctl/database.h"

namespace ruxctl {
namespace {

FileId idOf(const struct stat& st) {
    return {st.st_dev, st.st_ino};
}

/// The name that a path leads to by way of its directory.
NameId nameIdOf(const std::string& path) {
    const size_t slash = path.rfind('/') + 1;
    struct stat st = {};
    stat(slash == 0 ? "." : path.substr(0, slash).c_str(), &st);
    return {idOf(st), path.substr(slash)};
}

Member lookedUp(const std::string& path, int64_t fileBytes, const Json::Value& record) {
    Member member;
    member.path = path;
    struct stat st = {};
    if (lstat(path.c_str(), &st) != 0) return member;
    member.isSymlink = S_ISLNK(st.st_mode);
    if (member.isSymlink && stat(path.c_str(), &st) != 0) return member;
    const bool isNewer = record.isObject() && record["s_time"].isInt64() &&
                         record["s_time"].asInt64() != st.st_mtime;
    const bool isSame = S_ISREG(st.st_mode) && st.st_size == fileBytes && !isNewer;
    member.state = isSame ? State::There : State::Changed;
    member.file = idOf(st);
    member.name = nameIdOf(path);
    member.links = static_cast<int64_t>(st.st_nlink);
    member.allocated = int64_t{st.st_blocks} * 512;
    return member;
}

/// Tells files of one's own from links, and what the links of a group that has been linked have
/// given back: the names beyond the first of each file.
void takeStock(Group& group) {
    std::map<FileId, int64_t> paths;
    std::map<FileId, std::set<NameId>> names;
    for (const Member& member : group.members) {
        if (!member.isPresent()) continue;
        ++paths[member.file];
        if (!group.compressed || member.isSymlink) continue;
        std::set<NameId>& known = names[member.file];
        if (known.insert(member.name).second && known.size() > 1) group.given += member.allocated;
    }
    for (Member& member : group.members) {
        if (member.isPresent() && paths[member.file] > 1) member.state = State::Linked;
    }
    group.files = static_cast<int64_t>(paths.size());
}

std::string reasonFor(int error) {
    static const std::map<int, const char*> kReasons =
            {{EBUSY, "open for writing"},
             {EBADE, "of another owner, group, mode or attribute"},
             {EACCES, "one of them lies in a directory that others cannot enter"},
             {EXDEV, "on another file system"},
             {EILSEQ, "of another content by now"},
             {ELOOP, "behind a symbolic link of somebody else's"},
             {EINVAL, "no regular file"},
             {EOPNOTSUPP, "in an overlay, or on a file system that cannot exchange files"}};
    const auto found = kReasons.find(error);
    return found == kReasons.end() ? strerror(error) : found->second;
}

/// How many names each file has while they are moved from file to file.
class Names {
  public:
    /// The file that a member's path leads to.
    FileId fileOf(const Member& member) const {
        const auto moved = mMoved.find(member.name);
        return moved == mMoved.end() ? member.file : moved->second;
    }
    /// Makes one member's name lead to another one's file. Returns the bytes that this frees.
    int64_t move(const Member& member, const Member& kept) {
        const FileId from = fileOf(member);
        const FileId to = fileOf(kept);
        if (from == to) return 0;
        mCount.try_emplace(member.file, member.links);
        mCount.try_emplace(kept.file, kept.links);
        mMoved[member.name] = to;
        ++mCount[to];
        return --mCount[from] == 0 ? member.allocated : 0;
    }

  private:
    std::map<NameId, FileId> mMoved;
    std::map<FileId, int64_t> mCount;
};

/// Says what linking would do to each member, as the service goes about it.
void plan(Group& group, Names& names) {
    Member* kept = nullptr;
    for (Member& member : group.members) {
        if (member.state == State::Gone) continue;
        if (kept == nullptr) {
            kept = &member;
        } else if (!member.isSymlink && names.fileOf(member) != names.fileOf(*kept)) {
            const int error = checkHardLink(kept->path.c_str(), member.path.c_str(),
                                            std::max(kept->state, member.state) == State::Changed);
            member.step = error == 0 ? Step::Link : Step::Skip;
            if (error != 0) member.reason = reasonFor(error);
            if (error == 0) group.reclaimable += names.move(member, *kept);
        }
    }
    if (kept != nullptr && group.count(Step::None) < static_cast<int64_t>(group.members.size()))
        kept->step = Step::Keep;
}

void addGroups(const SpaceImages& images, bool compressed, Names& names,
               std::vector<Group>& groups) {
    const Json::Value& all = compressed ? images.compressed : images.toCompress;
    for (auto entry = all.begin(); entry != all.end(); ++entry) {
        const Json::Value& paths = entry->isObject() ? (*entry)["f_list"] : *entry;
        if (!entry->isObject() || !paths.isArray() || paths.size() < 2) continue;
        Group group;
        group.spaceId = images.spaceId;
        group.digest = entry.name();
        group.fileBytes = numberOf(*entry, "f_size");
        group.compressed = compressed;
        for (const Json::Value& path : paths) {
            if (!path.isString()) continue;
            // A link has the time of the file that was kept, not the recorded one of its own.
            const Json::Value& record =
                    compressed ? Json::Value::nullSingleton() : images.records[path.asString()];
            group.members.push_back(lookedUp(path.asString(), group.fileBytes, record));
        }
        takeStock(group);
        if (!compressed) plan(group, names);
        groups.push_back(std::move(group));
    }
}

/// The paths of the groups that have been linked.
std::set<std::string> pathsOf(const Json::Value& groups) {
    std::set<std::string> paths;
    for (const Json::Value& group : groups) {
        if (!group.isObject() || !group["f_list"].isArray()) continue;
        for (const Json::Value& path : group["f_list"]) paths.insert(path.asString());
    }
    return paths;
}

/// The members that a restore gives data of their own: one for each name.
std::vector<const Member*> restorable(const std::vector<Group>& groups) {
    std::set<NameId> seen;
    std::vector<const Member*> members;
    for (const Group& group : groups) {
        for (const Member& member : group.members) {
            if (member.state != State::Gone && !member.isSymlink && seen.insert(member.name).second)
                members.push_back(&member);
        }
    }
    return members;
}

}  // namespace

const char* nameOf(State state) {
    constexpr const char* kNames[] = {"there", "linked", "changed", "gone"};
    return kNames[static_cast<size_t>(state)];
}

const Member* Group::kept() const {
    for (const Member& member : members) {
        if (member.step == Step::Keep) return &member;
    }
    return nullptr;
}

int64_t Group::count(Step step) const {
    return std::count_if(members.begin(), members.end(),
                         [step](const Member& member) { return member.step == step; });
}

int64_t Group::linkedBefore() const {
    const auto first = std::find_if(members.begin(), members.end(), [](const Member& member) {
        return member.state != State::Gone;
    });
    return first == members.end()
                   ? 0
                   : std::count_if(first + 1, members.end(), [&](const auto& member) {
                         return member.isPresent() && !member.isSymlink &&
                                member.file == first->file && member.name != first->name;
                     });
}

bool Group::isOffered() const {
    return std::count_if(members.begin(), members.end(),
                         [](const Member& member) { return member.state != State::Gone; }) > 1;
}

int64_t Group::present() const {
    return std::count_if(members.begin(), members.end(),
                         [](const Member& member) { return member.isPresent(); });
}

std::vector<Group> groupsOf(const std::vector<std::string>& spaceIds, Which which) {
    std::vector<Group> groups;
    Names names;
    for (const std::string& spaceId : spaceIds) {
        const SpaceImages images = imagesOf(spaceId, which != Which::Compressed);
        if (which != Which::Compressed) addGroups(images, false, names, groups);
        if (which != Which::ToCompress) addGroups(images, true, names, groups);
    }
    return groups;
}

int64_t reclaimable(const std::vector<Group>& groups) {
    int64_t bytes = 0;
    for (const Group& group : groups) bytes += group.reclaimable;
    return bytes;
}

int64_t count(const std::vector<Group>& groups, Step step) {
    int64_t members = 0;
    for (const Group& group : groups) members += group.count(step);
    return members;
}

std::vector<const Member*> membersWith(const std::vector<Group>& groups, Step step) {
    std::vector<const Member*> members;
    for (const Group& group : groups) {
        for (const Member& member : group.members) {
            if (member.step == step) members.push_back(&member);
        }
    }
    return members;
}

int64_t checkLinks(std::vector<Group>& groups) {
    int64_t freed = 0;
    Names names;
    for (Group& group : groups) {
        const Member* kept = group.kept();
        if (kept == nullptr) continue;
        struct stat keptStatus = {};
        stat(kept->path.c_str(), &keptStatus);
        for (Member& member : group.members) {
            struct stat st = {};
            if (member.step != Step::Link) continue;
            if (stat(member.path.c_str(), &st) == 0 && idOf(st) == idOf(keptStatus)) {
                freed += names.move(member, *kept);
                continue;
            }
            const int error = checkHardLink(kept->path.c_str(), member.path.c_str(), true);
            member.step = Step::Skip;
            member.reason =
                    error == 0 ? "refused by the service, whose log says why" : reasonFor(error);
        }
    }
    return freed;
}

int64_t linksWithoutUndo(const std::vector<Group>& groups) {
    std::map<std::string, Json::Value> compressed;
    int64_t links = 0;
    for (const Group& group : groups) {
        auto found = compressed.find(group.spaceId);
        if (found == compressed.end())
            found = compressed.emplace(group.spaceId, imagesOf(group.spaceId, false).compressed)
                            .first;
        if (!found->second.isMember(group.digest))
            links += group.linkedBefore() + group.count(Step::Link);
    }
    return links;
}

std::vector<std::string> pathsWithoutUndo(const std::string& spaceId) {
    const SpaceImages images = imagesOf(spaceId, true);
    const std::set<std::string> known = pathsOf(images.compressed);
    std::map<FileId, std::map<NameId, std::string>> files;  // with several names
    for (const std::string& path : images.records.getMemberNames()) {
        struct stat st = {};
        if (lstat(path.c_str(), &st) == 0 && S_ISREG(st.st_mode) && st.st_nlink > 1)
            files[idOf(st)].emplace(nameIdOf(path), path);
    }
    std::vector<std::string> paths;
    for (const auto& [file, names] : files) {
        for (const auto& [name, path] : names) {
            if (names.size() > 1 && !known.contains(path)) paths.push_back(path);
        }
    }
    return paths;
}

std::map<std::string, int64_t> takenUpByRestore(const std::vector<Group>& groups) {
    std::map<FileId, std::set<NameId>> names;
    std::map<dev_t, std::string> paths;
    std::map<std::string, int64_t> bytes;
    for (const Member* member : restorable(groups)) {
        const std::string& path = paths.try_emplace(member->file.first, member->path).first->second;
        // The last of its names keeps the file, unless it has others elsewhere.
        std::set<NameId>& known = names[member->file];
        known.insert(member->name);
        if (static_cast<int64_t>(known.size()) < member->links) bytes[path] += member->allocated;
    }
    return bytes;
}

int64_t checkRestored(const std::vector<Group>& groups, std::vector<std::string>* left) {
    int64_t bytes = 0;
    for (const Member* member : restorable(groups)) {
        struct stat st = {};
        if (lstat(member->path.c_str(), &st) != 0) continue;
        if (idOf(st) != member->file) {
            bytes += int64_t{st.st_blocks} * 512;
        } else if (st.st_nlink > 1) {
            left->push_back(member->path);
        }
    }
    return bytes;
}

}  // namespace ruxctl
