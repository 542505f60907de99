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

/// The integer parts of 2^32 times the sines of 1 to 64.
constexpr uint32_t kMd5Sines[64] = {0xd76aa478, 0xe8c7b756, 0x242070db, 0xc1bdceee, 0xf57c0faf,
                                    0x4787c62a, 0xa8304613, 0xfd469501, 0x698098d8, 0x8b44f7af,
                                    0xffff5bb1, 0x895cd7be, 0x6b901122, 0xfd987193, 0xa679438e,
                                    0x49b40821, 0xf61e2562, 0xc040b340, 0x265e5a51, 0xe9b6c7aa,
                                    0xd62f105d, 0x02441453, 0xd8a1e681, 0xe7d3fbc8, 0x21e1cde6,
                                    0xc33707d6, 0xf4d50d87, 0x455a14ed, 0xa9e3e905, 0xfcefa3f8,
                                    0x676f02d9, 0x8d2a4c8a, 0xfffa3942, 0x8771f681, 0x6d9d6122,
                                    0xfde5380c, 0xa4beea44, 0x4bdecfa9, 0xf6bb4b60, 0xbebfbc70,
                                    0x289b7ec6, 0xeaa127fa, 0xd4ef3085, 0x04881d05, 0xd9d4d039,
                                    0xe6db99e5, 0x1fa27cf8, 0xc4ac5665, 0xf4292244, 0x432aff97,
                                    0xab9423a7, 0xfc93a039, 0x655b59c3, 0x8f0ccc92, 0xffeff47d,
                                    0x85845dd1, 0x6fa87e4f, 0xfe2ce6e0, 0xa3014314, 0x4e0811a1,
                                    0xf7537e82, 0xbd3af235, 0x2ad7d2bb, 0xeb86d391};

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
