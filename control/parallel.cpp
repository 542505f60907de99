#include "control/parallel.h"

#include <algorithm>
#include <thread>

namespace rux {

size_t processors() {
    return std::max(1U, std::thread::hardware_concurrency());
}

void inParallel(size_t parts, const std::function<void(size_t part)>& work) {
    std::vector<std::future<void>> others;  // one that gets no thread runs when it is asked for
    for (size_t part = 1; part < parts; ++part) others.push_back(std::async(work, part));
    if (parts > 0) work(0);
    for (std::future<void>& other : others) other.get();
}

SharedWork::SharedWork(size_t threads, const std::function<void()>& takePart)
      : mTakePart(takePart) {
    for (size_t i = 1; i < threads; ++i) mOthers.push_back(std::async(takePart));
}

void SharedWork::finish() {
    mTakePart();
    for (std::future<void>& other : mOthers) other.get();
}

}  // namespace rux
