#include "scan/window.h"

#include <iterator>

#include "control/properties.h"
#include "db/images.h"

namespace rux {

Window::Window(EntryStream& stream, Preparation& preparation, const PatternList& regs,
               const PatternList& blackList)
      : mStream(stream),
        mPreparation(preparation),
        mRegs(regs),
        mBlackList(blackList),
        mMayBeFinished(!fileInfoDB->empty()) {}

Window::~Window() {
    dropAll();
}

const Entry* Window::next() {
    while (mItems.size() < lookAhead.entries / 2 || mItems.empty()) {
        if (!refill(mItems.empty())) break;
    }
    return mItems.empty() ? nullptr : &mItems.front().entry;
}

/// Looks at further entries and has digests begun, as far as there is room. False when nothing
/// came.
bool Window::refill(bool wait) {
    if (!hasRoom()) return false;
    if (mEntries.empty() && (!mStream.read(mEntries, wait) || mEntries.empty())) return false;
    std::vector<DigestJob*> jobs;
    bool any = false;
    while (!mEntries.empty() && hasRoom()) {
        mItems.emplace_back(std::move(mEntries.front()));
        mEntries.pop_front();
        prepare(mItems.back(), jobs);
        any = true;
    }
    mPreparation.digests.start(jobs);
    return any;
}

bool Window::hasRoom() const {
    return mItems.empty() || (mItems.size() < lookAhead.entries && mBytes < lookAhead.bytes);
}

void Window::prepare(Item& item, std::vector<DigestJob*>& jobs) {
    const Entry& entry = item.entry;
    if (entry.kind != Entry::Kind::File) return;
    item.judgement = judge(entry.path, mRegs, mBlackList, mMayBeFinished);
    if (item.judgement.need != Need::Digest) return;
    item.isShared = mPreparation.knownFiles.isExpected(entry.status);
    if (item.isShared) return;
    mPreparation.knownFiles.promise(entry.status);
    item.job.path = entry.path.c_str();
    item.hasJob = true;
    mBytes += entry.status.st_size;
    jobs.push_back(&item.job);
}

void Window::pop() {
    Item& item = mItems.front();
    if (item.hasJob) {
        while (!item.job.isDone) mPreparation.digests.waitFor(item.job);
        mPreparation.knownFiles.settle(item.entry.status, item.job.result);
        mBytes -= item.entry.status.st_size;
    }
    mItems.pop_front();
}

FileMD5Result Window::digest() {
    Item& item = mItems.front();
    while (item.hasJob && !item.job.isDone) {
        if (!refill(false)) mPreparation.digests.waitFor(item.job);
    }
    FileMD5Result result = item.job.result;
    if (item.isShared && mPreparation.knownFiles.find(item.entry.status, &result)) return result;
    // The other name's digest failed, or was dropped with what lay ahead of a stop.
    if (item.isShared) result = computeFileMD5(item.entry.path.c_str(), toolLogEnabled);
    return result;
}

void Window::leaveDirectory(size_t depth) {
    std::deque<Entry> ahead;
    for (const Item& item : mItems) ahead.push_back(item.entry);
    std::move(mEntries.begin(), mEntries.end(), std::back_inserter(ahead));
    dropAll();
    mStream.leaveDirectory(depth, ahead);
    mEntries = std::move(ahead);
}

/// The jobs go with their items, and their promises with them.
void Window::dropAll() {
    mPreparation.digests.dropAll();
    for (const Item& item : mItems) {
        if (item.hasJob) mPreparation.knownFiles.settle(item.entry.status, item.job.result);
    }
    mItems.clear();
    mBytes = 0;
}

}  // namespace rux
