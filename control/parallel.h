/// Work that several threads can share.
#pragma once

#include <cstddef>
#include <functional>

namespace rux {

/// Calls `work` with 0 … `parts` - 1, all at once where the system grants threads, and returns when
/// all calls have. Throws what one of them has thrown.
void inParallel(size_t parts, const std::function<void(size_t part)>& work);

}  // namespace rux
