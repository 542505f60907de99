/// What a scan has in preparation.
#pragma once

#include <deque>
#include <set>
#include <string>
#include <vector>

#include "request/patterns.h"
#include "scan/entry_stream.h"
#include "scan/fingerprint.h"
#include "scan/known_files.h"
#include "scan/pending_members.h"
#include "scan/readers.h"

namespace rux {

/// What the walks of one request share.
struct Preparation {
    KnownFiles knownFiles;
    Readers readers{knownFiles};
    PendingMembers pendingMembers;
    std::set<std::string> tidied;  // directories that stale temporary names were removed from
};

/// The entries of a walk that have been read ahead, with the status and the digests of their files.
///
/// Nothing that is done here can be observed: an entry has its effects when its turn comes.
class Window {
  public:
    Window(EntryStream& stream, Preparation& preparation, const PatternList& regs,
           const PatternList& blackList);
    ~Window();
    Window(const Window&) = delete;
    Window& operator=(const Window&) = delete;

    /// The entry whose turn it is; null at the end of the walk. Valid until `pop`.
    const Entry* next();
    void pop();

    /// What has to be done for the file whose turn it is, and its status, as it looked when it was
    /// met.
    const Judgement& judgement() const { return mItems.front().judgement; }
    const struct stat& status() const { return mItems.front().job.status; }

    /// The digest of the file whose turn it is. Waits for it.
    FileMD5Result digest();

    /// Leaves out everything up to the end of the directory of the entry whose turn it is, which
    /// lies `depth` levels below the start.
    void leaveDirectory(size_t depth);

  private:
    struct Item {
        explicit Item(Entry entryRead) : entry(std::move(entryRead)) {}
        Entry entry;
        Judgement judgement;
        ReadJob job;  // of an entry that is Unknown
    };

    bool refill();
    void prepare(Item& item, std::vector<ReadJob*>& jobs);
    void dropAll();

    EntryStream& mStream;
    Preparation& mPreparation;
    const PatternList& mRegs;
    const PatternList& mBlackList;
    const bool mMayBeFinished;   // there were records before this walk, which meets each path once
    std::deque<Item> mItems;     // in the order of the walk
    std::deque<Entry> mEntries;  // read, but not looked at
};

}  // namespace rux
