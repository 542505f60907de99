/// Work that several threads can share.
#pragma once

#include <cstddef>
#include <functional>
#include <future>
#include <vector>

namespace rux {

/// As many threads as the machine has processors.
size_t processors();
/// Threads that are worth while where each mostly waits for a disk, which is the faster the more
/// ask.
constexpr size_t kThreadsForDisk = 16;

/// Calls `work` with 0 … `parts` - 1, all at once where the system grants threads, and returns when
/// all calls have. Throws what one of them has thrown.
void inParallel(size_t parts, const std::function<void(size_t part)>& work);

/// Work that several threads share: each calls the same function, which takes what is next until
/// there is no more.
class SharedWork {
  public:
    /// Begins in other threads, `threads` with that of the caller, as far as the system grants
    /// them.
    SharedWork(size_t threads, const std::function<void()>& takePart);

    /// Takes part, and returns when nobody does any more. To be called once.
    void finish();

  private:
    std::function<void()> mTakePart;
    std::vector<std::future<void>> mOthers;
};

}  // namespace rux
