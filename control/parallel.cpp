#include "control/parallel.h"

#include <future>
#include <system_error>
#include <vector>

namespace rux {

void inParallel(size_t parts, const std::function<void(size_t part)>& work) {
    std::vector<std::future<void>> others;
    for (size_t part = 1; part < parts; ++part) {
        try {
            others.push_back(std::async(std::launch::async, work, part));
        } catch (const std::system_error&) {  // no thread
            work(part);
        }
    }
    if (parts > 0) work(0);
    for (std::future<void>& other : others) other.get();
}

}  // namespace rux
