#include "scan/window.h"

#include <algorithm>
#include <iterator>

#include "control/properties.h"
#include "db/images.h"

namespace rux {
namespace {

constexpr size_t kStep = 1024;         // entries that are read and looked at together
constexpr size_t kMaxEntries = 16384;  // that are read ahead of their turn

}  // namespace

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
    while (mItems.size() + kStep <= kMaxEntries) {
        if (!refill()) break;
    }
    if (mItems.empty()) return nullptr;
    Item& item = mItems.front();
    if (item.entry.kind == Entry::Kind::Unknown) {
        while (!item.job.hasStatus()) {
            if (!refill()) mPreparation.readers.advance(item.job);
        }
        item.entry.kind = item.job.kind;
    }
    return &item.entry;
}

/// Looks at some further entries and has their files read, as far as there is room. False when
/// there is none, or at the end of the walk.
bool Window::refill() {
    if (mItems.size() >= kMaxEntries) return false;
    size_t count = std::min(kStep, kMaxEntries - mItems.size());
    if (mEntries.empty() && !mStream.read(mEntries, count)) return false;
    std::vector<ReadJob*> jobs;
    for (; count > 0 && !mEntries.empty(); --count) {
        mItems.emplace_back(std::move(mEntries.front()));
        mEntries.pop_front();
        prepare(mItems.back(), jobs);
    }
    mPreparation.readers.start(jobs);
    return true;
}

void Window::prepare(Item& item, std::vector<ReadJob*>& jobs) {
    const Entry& entry = item.entry;
    if (entry.kind != Entry::Kind::Unknown) return;
    item.judgement = judge(entry.path, entry.realPath, mRegs, mBlackList, mMayBeFinished);
    item.job.path = entry.path.c_str();
    item.job.isRegular = entry.isRegular;
    item.job.wantsDigest = item.judgement.need == Need::Digest;
    jobs.push_back(&item.job);
}

void Window::pop() {
    Item& item = mItems.front();
    if (item.entry.kind == Entry::Kind::File) {
        while (!item.job.isDone()) mPreparation.readers.advance(item.job);
    }
    mPreparation.readers.release(item.job);
    mItems.pop_front();
}

FileMD5Result Window::digest() {
    Item& item = mItems.front();
    while (!item.job.isDone()) {
        if (!refill()) mPreparation.readers.advance(item.job);
    }
    if (item.job.claim != KnownFiles::Claim::Others) return item.job.result;
    // Another name of the file is being read, or has been.
    FileMD5Result result = {};
    while (true) {
        switch (mPreparation.knownFiles.take(item.job.status, &result)) {
            case KnownFiles::Answer::Known:
                return result;
            case KnownFiles::Answer::Unknown:  // in vain
                return computeFileMD5(item.entry.path.c_str(), toolLogEnabled);
            case KnownFiles::Answer::Claimed:
                if (!refill()) mPreparation.readers.waitAMoment();
                break;
        }
    }
}

void Window::leaveDirectory(size_t depth) {
    std::deque<Entry> ahead;
    for (const Item& item : mItems) ahead.push_back(item.entry);
    std::move(mEntries.begin(), mEntries.end(), std::back_inserter(ahead));
    dropAll();
    mStream.leaveDirectory(depth, ahead);
    mEntries = std::move(ahead);
}

void Window::dropAll() {
    mPreparation.readers.dropAll();
    mItems.clear();
}

}  // namespace rux
