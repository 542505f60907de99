/// How far a scan works ahead of itself.
#pragma once

#include <cstddef>
#include <cstdint>
#include <thread>

namespace rux {

/// What may be in preparation at once; it bounds the scan's memory beyond the images.
struct LookAhead {
    size_t entries = 16384;              ///< of directories, read ahead of their turn
    int64_t bytes = int64_t{512} << 20;  ///< of files whose digests were begun
    unsigned workers = std::thread::hardware_concurrency();  ///< threads that read files
};

/// Everything in its turn and on the scan's own thread.
constexpr LookAhead kNoLookAhead = {0, 0, 0};

/// In force for the scans that start from now on.
inline LookAhead lookAhead;

}  // namespace rux
