/// MD5's block function (RFC 1321) on many messages at once.
///
/// One message is a chain in which every step waits for the one before; several messages beside
/// each other in the elements of a vector take hardly longer than one.
#pragma once

#include <cstddef>
#include <cstdint>

namespace android::host {

constexpr size_t kMd5BlockBytes = 64;
constexpr size_t kMaxMd5Lanes = 32;

/// The integer parts of 2^32 times the sines of 1 to 64. No constants for the compiler: g++ would
/// put each into a register and from there into a vector, which AVX2 digests a tenth slower with.
extern const uint32_t kMd5Sines[64];

/// The running digests of the messages: element `lane` of each of the four words.
struct Md5States {
    alignas(64) uint32_t words[4][kMaxMd5Lanes];
};

/// The block function for a number of messages.
struct Md5Kernel {
    size_t lanes;  ///< messages at once, at most kMaxMd5Lanes
    /// Advances the first `lanes` states by `blocks` blocks of 64 bytes each, which lie one behind
    /// the other at `data[lane]`.
    void (*run)(Md5States& states, const unsigned char* const* data, size_t blocks);
};

/// What this processor runs best, in ascending order of lanes: a kernel takes the less time for a
/// block of each of its messages the fewer they are.
struct Md5Kernels {
    const Md5Kernel* kernels;
    size_t count;

    size_t maxLanes() const { return kernels[count - 1].lanes; }
    /// The kernel for `messages` of them, at most `maxLanes()`.
    const Md5Kernel& forMessages(size_t messages) const {
        const Md5Kernel* kernel = kernels;
        while (kernel->lanes < messages) ++kernel;
        return *kernel;
    }
};

/// With vectors of 16 bytes, which every 64-bit processor has.
extern const Md5Kernels kMd5Kernels128;
#if defined(__x86_64__)
extern const Md5Kernels kMd5Kernels256;  ///< AVX2
extern const Md5Kernels kMd5Kernels512;  ///< AVX-512F
#endif

/// The widest of them that this processor has.
const Md5Kernels& md5Kernels();

}  // namespace android::host
