#include "ruxctl/groups.h"

#include <sys/stat.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <future>
#include <set>
#include <string_view>
#include <thread>
#include <unordered_map>

#include "f2fs_io/hard_link.h"
#include "ruxctl/database.h"

namespace ruxctl {
namespace {

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
        if (known.insert(member.name()).second && known.size() > 1) group.given += member.allocated;
    }
    for (Member& member : group.members) {
        if (member.isPresent() && paths[member.file] > 1) member.state = State::Linked;
    }
    group.files = static_cast<int64_t>(paths.size());
}

/// The first member that exists, whose file is the one that is kept; null when none does.
template <typename Members>
auto firstOf(Members& members) -> decltype(members.data()) {
    const auto first = std::find_if(members.begin(), members.end(), [](const Member& member) {
        return member.state != State::Gone;
    });
    return first != members.end() ? &*first : nullptr;
}

/// Asks what stands in the way of linking each member.
void findErrors(Group& group) {
    const Member* const first = firstOf(group.members);
    if (first == nullptr) return;
    for (Member& member : group.members) {
        if (member.state == State::Gone || member.isSymlink || member.file == first->file) continue;
        const bool hasChanged = std::max(first->state, member.state) == State::Changed;
        member.error = checkHardLink(first->path.c_str(), member.path.c_str(), hasChanged);
        if (member.error == EILSEQ && member.state != State::Changed) member.error = kKeptChanged;
    }
}

/// Counts what the skipped members would give back among themselves: those of one owner, mode and
/// file system are equal, but one file alone is kept for a group.
void countApart(Group& group) {
    std::map<uint64_t, std::set<FileId>> files;
    for (const Member& member : group.members) {
        if (member.step != Step::Skip || (member.error != EBADE && member.error != EXDEV)) continue;
        std::set<FileId>& known = files[member.rights];
        if (known.insert(member.file).second && known.size() > 1) group.apart += member.allocated;
    }
}

/// Where names lead, and how many each file has, while they are moved from file to file.
class Names {
  public:
    struct Place {
        FileId file;
        const std::string* movedIn;  // the space in which that has become so, or null
    };
    Place of(const Member& member) const {
        const auto moved = mMoved.find(member.name());
        return moved == mMoved.end() ? Place{member.file, nullptr} : moved->second;
    }
    /// Makes one member's name lead to another one's file. Returns the bytes that this frees.
    int64_t move(const Member& member, const Member& kept, const std::string& spaceId) {
        const FileId from = of(member).file;
        const FileId to = of(kept).file;
        if (from == to) return 0;
        mMoved[member.name()] = {to, &spaceId};
        ++mCount.try_emplace(to, kept.links).first->second;
        return --mCount.try_emplace(from, member.links).first->second == 0 ? member.allocated : 0;
    }

  private:
    struct Hash {
        size_t operator()(const FileId& file) const { return file.second; }
        size_t operator()(const NameId& name) const {
            return std::hash<std::string_view>()(name.second) ^ (*this)(name.first);
        }
    };
    std::unordered_map<NameId, Place, Hash> mMoved;
    std::unordered_map<FileId, int64_t, Hash> mCount;
};

/// Says what linking would do to each member, as the service goes about it.
void plan(Group& group, Names& names) {
    Member* const kept = firstOf(group.members);
    if (kept == nullptr) return;
    const Names::Place keptPlace = names.of(*kept);
    for (Member& member : group.members) {
        if (member.state == State::Gone || &member == kept || member.isSymlink) continue;
        const Names::Place place = names.of(member);
        if (place.file == keptPlace.file) {
            for (const std::string* moved : {place.movedIn, keptPlace.movedIn}) {
                if (moved != nullptr && *moved != group.spaceId) group.countedIn = *moved;
            }
            continue;
        }
        member.step = member.error == 0 ? Step::Link : Step::Skip;
        if (member.error == 0) group.reclaimable += names.move(member, *kept, group.spaceId);
        kept->step = Step::Keep;
    }
    countApart(group);
}

/// Adds the groups of several paths, as the text has them.
void addGroups(const std::string& spaceId, const SpaceTexts& texts, bool compressed,
               std::vector<Group>& groups) {
    texts.forEachGroup(compressed ? kCompressed : kToCompress,
                       [&](const std::string& digest, int64_t fileBytes, auto paths) {
                           Group& group = groups.emplace_back();
                           group.spaceId = spaceId;
                           group.digest = digest;
                           group.fileBytes = fileBytes;
                           group.compressed = compressed;
                           group.members.resize(paths.size());
                           for (size_t i = 0; i < paths.size(); ++i)
                               group.members[i].path = std::move(paths[i]);
                       });
}

/// Gives the members their recorded times. A link has the time of the file that was kept instead.
void addTimes(const SpaceTexts& texts, std::vector<Group>& groups, size_t first) {
    std::unordered_multimap<std::string_view, Member*> members;  // by path
    for (size_t i = first; i < groups.size(); ++i) {
        if (groups[i].compressed) continue;
        for (Member& member : groups[i].members) members.emplace(member.path, &member);
    }
    texts.forEach(kRecords, [&](const std::string& path, const Json::Value& record) {
        if (!record.isObject() || !record["s_time"].isInt64()) return;
        const auto [begin, end] = members.equal_range(path);
        for (auto member = begin; member != end; ++member)
            member->second->time = record["s_time"].asInt64();
    });
}

/// Looks at all members, with all processors.
void lookAtAll(std::vector<Group>& groups, Look look,
               const std::function<void(int64_t, int64_t)>& tick) {
    std::atomic<size_t> next{0};
    const auto work = [&] {
        Directories directories;
        for (size_t i = next++; i < groups.size(); i = next++) {
            Group& group = groups[i];
            for (Member& member : group.members)
                member.allocated =
                        ownBytes(member.path, lookAt(member, group.fileBytes, directories));
            takeStock(group);
            if (look == Look::Plan && !group.compressed) findErrors(group);
        }
    };
    std::vector<std::future<void>> workers;
    for (unsigned i = 0; i < std::max(1U, std::thread::hardware_concurrency()); ++i)
        workers.push_back(std::async(std::launch::async, work));
    for (std::future<void>& worker : workers) {
        while (worker.wait_for(std::chrono::milliseconds(100)) != std::future_status::ready)
            tick(static_cast<int64_t>(std::min<size_t>(next, groups.size())),
                 static_cast<int64_t>(groups.size()));
        worker.get();
    }
}

}  // namespace

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
    const Member* const first = firstOf(members);
    if (first == nullptr) return 0;
    return std::count_if(members.begin(), members.end(), [first](const Member& member) {
        return member.isPresent() && !member.isSymlink && member.file == first->file &&
               member.name() != first->name();
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

std::vector<Group> groupsOf(const std::vector<std::string>& spaceIds, Which which, Look look,
                            const std::function<void(int64_t, int64_t)>& tick) {
    std::vector<Group> groups;
    for (const std::string& spaceId : spaceIds) {
        std::vector<Image> images;
        if (which != Which::Compressed) images.push_back(kToCompress);
        if (which != Which::ToCompress) images.push_back(kCompressed);
        const bool needsTimes = which != Which::Compressed && look == Look::Plan;
        if (needsTimes) images.push_back(kRecords);
        const SpaceTexts texts(spaceId, images);
        const size_t first = groups.size();
        if (which != Which::Compressed) addGroups(spaceId, texts, false, groups);
        if (which != Which::ToCompress) addGroups(spaceId, texts, true, groups);
        if (needsTimes) addTimes(texts, groups, first);
    }
    lookAtAll(groups, look, tick);
    Names names;
    for (Group& group : groups) {
        if (!group.compressed) plan(group, names);
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
                freed += names.move(member, *kept, group.spaceId);
                continue;
            }
            const int error = checkHardLink(kept->path.c_str(), member.path.c_str(), true);
            member.step = Step::Skip;
            member.error = error == 0 ? kRefused : error;
        }
        countApart(group);
    }
    return freed;
}

int64_t linksWithoutUndo(const std::vector<Group>& groups) {
    std::map<std::string, std::set<std::string>> digests;  // by space
    int64_t links = 0;
    for (const Group& group : groups) {
        const auto [found, isNew] = digests.try_emplace(group.spaceId);
        if (isNew) {
            SpaceTexts(group.spaceId, {kCompressed})
                    .forEach(kCompressed, [&known = found->second](const auto& digest, auto&) {
                        known.insert(digest);
                    });
        }
        if (!found->second.contains(group.digest))
            links += group.linkedBefore() + group.count(Step::Link);
    }
    return links;
}

std::vector<std::string> pathsWithoutUndo(const std::string& spaceId) {
    const SpaceTexts texts(spaceId, {kRecords, kCompressed});
    std::map<FileId, std::vector<Member>> files;  // with several names
    Directories directories;
    texts.forEach(kRecords, [&](const std::string& path, const Json::Value&) {
        Member member;
        member.path = path;
        lookAt(member, 0, directories);
        if (member.links > 1 && !member.isSymlink) files[member.file].push_back(std::move(member));
    });
    std::set<std::string> known;
    texts.forEachGroup(kCompressed, [&known](const std::string&, int64_t, const auto& paths) {
        known.insert(paths.begin(), paths.end());
    });
    std::vector<std::string> without;
    for (const auto& [file, members] : files) {
        std::set<NameId> names;
        for (const Member& member : members) names.insert(member.name());
        for (const Member& member : members) {
            if (names.size() > 1 && !known.contains(member.path)) without.push_back(member.path);
        }
    }
    return without;
}

std::vector<const Member*> linkedMembers(const std::vector<Group>& groups) {
    std::set<NameId> seen;
    std::vector<const Member*> members;
    for (const Group& group : groups) {
        for (const Member& member : group.members) {
            if (member.links > 1 && !member.isSymlink && seen.insert(member.name()).second)
                members.push_back(&member);
        }
    }
    return members;
}

std::map<std::string, int64_t> takenUpByRestore(const std::vector<const Member*>& linked) {
    std::map<FileId, int64_t> names;
    std::map<dev_t, std::string> paths;
    std::map<std::string, int64_t> bytes;
    for (const Member* member : linked) {
        const std::string& path = paths.try_emplace(member->file.first, member->path).first->second;
        // The last of its names keeps the file, unless it has others elsewhere.
        if (++names[member->file] < member->links) bytes[path] += member->allocated;
    }
    return bytes;
}

int64_t checkRestored(const std::vector<const Member*>& linked, std::vector<std::string>* left) {
    int64_t bytes = 0;
    std::map<FileId, int64_t> names;
    for (const Member* member : linked) {
        struct stat st = {};
        if (lstat(member->path.c_str(), &st) != 0) continue;
        if (idOf(st) != member->file) {
            // The last name's copy takes what the file has given back.
            if (++names[member->file] < member->links) bytes += ownBytes(member->path, st);
        } else if (st.st_nlink > 1) {
            left->push_back(member->path);
        }
    }
    return bytes;
}

}  // namespace ruxctl
