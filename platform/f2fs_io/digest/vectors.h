/// The block function of kernel.h in the compiler's vector types, for any width.
///
/// Included by one source file for each width, which is compiled for the processors that have it.
/// So nothing that is used here may be shared with other files: no inline function of the standard
/// library, which the linker could then take for all of them.
#pragma once

#include <cstring>
#include <utility>

#include "f2fs_io/digest/kernel.h"

namespace android::host {
namespace {

static_assert(__BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__, "message words are read as they lie");

template <typename Vector>
struct Lanes {
    static constexpr size_t kWordBytes = 4;
    static constexpr size_t kWidth = sizeof(Vector) / kWordBytes;
    static constexpr size_t kSteps = 64;
    static constexpr size_t kBlockWords = 16;

    static constexpr unsigned kShifts[4][4] = {{7, 12, 17, 22},
                                               {5, 9, 14, 20},
                                               {4, 11, 16, 23},
                                               {6, 10, 15, 21}};

    /// The message word that a step adds.
    static constexpr size_t wordOf(size_t step) {
        constexpr size_t kFactor[] = {1, 5, 3, 7};
        constexpr size_t kOffset[] = {0, 1, 5, 0};
        return (kFactor[step / 16] * step + kOffset[step / 16]) % kBlockWords;
    }

    /// A vector that lies anywhere. As a value it is loaded at once; a copy of its bytes may be
    /// made in halves, which a processor cannot load back as a whole before both have reached its
    /// cache.
    using Unaligned __attribute__((aligned(1), may_alias)) = Vector;

    struct State {
        Vector words[4];
    };

    /// Adds the round's function of three words, of which `b` is the last to be known.
    template <size_t kRound>
    static inline Vector addMix(Vector sum, Vector b, Vector c, Vector d) {
        if constexpr (kRound == 0) return sum + (d ^ (b & (c ^ d)));
        // The halves have no bit in common, so that each can be added alone, and only one of them
        // waits for `b`. Vector units rather choose in a single instruction, which AVX2 does not
        // have.
        if constexpr (kRound == 1 && (kWidth == 1 || kWidth == 8))
            return (sum + (c & ~d)) + (b & d);
        if constexpr (kRound == 1) return sum + ((b & d) | (c & ~d));
        if constexpr (kRound == 2) return sum + (b ^ (c ^ d));
        return sum + (c ^ (b | ~d));
    }

    template <size_t kStep>
    static inline void step(State& s, const Vector* message) {
        constexpr unsigned kShift = kShifts[kStep / 16][kStep % 4];
        Vector& a = s.words[(kSteps - kStep) % 4];
        const Vector b = s.words[(kSteps - kStep + 1) % 4];
        const Vector c = s.words[(kSteps - kStep + 2) % 4];
        const Vector d = s.words[(kSteps - kStep + 3) % 4];
        const Vector sum =
                addMix<kStep / 16>(message[wordOf(kStep)] + kMd5Sines[kStep] + a, b, c, d);
        a = b + ((sum << kShift) | (sum >> (32 - kShift)));
    }

    /// All steps, each for every chain before the next: the chains do not wait for each other.
    template <size_t kChains, size_t... kStep>
    static inline void steps(State* chains, const Vector (*messages)[kBlockWords],
                             std::index_sequence<kStep...> /*steps*/) {
        const auto forAll = [&]<size_t kOne>() {
            for (size_t i = 0; i < kChains; ++i) step<kOne>(chains[i], messages[i]);
        };
        (forAll.template operator()<kStep>(), ...);
    }

    /// Of two vectors, the elements of which bit `kDistance` of the number is clear (or set), in
    /// turn.
    template <size_t kDistance, size_t... kElement>
    static inline void exchange(Vector& low, Vector& high,
                                std::index_sequence<kElement...> /*elements*/) {
        const Vector a = low;
        const Vector b = high;
        low = __builtin_shufflevector(a, b,
                                      ((kElement & kDistance) ? kWidth + kElement - kDistance
                                                              : kElement)...);
        high = __builtin_shufflevector(a, b,
                                       ((kElement & kDistance) ? kWidth + kElement
                                                               : kElement + kDistance)...);
    }

    /// Turns rows into columns.
    template <size_t kDistance = 1>
    static inline void transpose(Vector* rows) {
        for (size_t i = 0; i < kWidth; ++i) {
            if ((i & kDistance) == 0) {
                exchange<kDistance>(rows[i], rows[i + kDistance],
                                    std::make_index_sequence<kWidth>());
            }
        }
        if constexpr (kDistance * 2 < kWidth) transpose<kDistance * 2>(rows);
    }

    /// The words of one block of each lane: vector i holds word i of all of them.
    static inline void gather(const unsigned char* const* data, size_t offset, Vector* message) {
        for (size_t first = 0; first < kBlockWords; first += kWidth) {
            for (size_t lane = 0; lane < kWidth; ++lane) {
                message[first + lane] = *reinterpret_cast<const Unaligned*>(data[lane] + offset +
                                                                            first * kWordBytes);
            }
            if constexpr (kWidth > 1) transpose(message + first);
        }
    }

    template <size_t kChains>
    static void run(Md5States& states, const unsigned char* const* data, size_t blocks) {
        static_assert(kChains * kWidth <= kMaxMd5Lanes);
        State chains[kChains];
        for (size_t i = 0; i < kChains; ++i) {
            for (size_t word = 0; word < 4; ++word)
                memcpy(&chains[i].words[word], states.words[word] + i * kWidth, sizeof(Vector));
        }
        for (size_t block = 0; block < blocks; ++block) {
            Vector messages[kChains][kBlockWords];
            State before[kChains];
            for (size_t i = 0; i < kChains; ++i) {
                gather(data + i * kWidth, block * kMd5BlockBytes, messages[i]);
                before[i] = chains[i];
            }
            steps<kChains>(chains, messages, std::make_index_sequence<kSteps>());
            for (size_t i = 0; i < kChains; ++i) {
                for (size_t word = 0; word < 4; ++word)
                    chains[i].words[word] += before[i].words[word];
            }
        }
        for (size_t i = 0; i < kChains; ++i) {
            for (size_t word = 0; word < 4; ++word)
                memcpy(states.words[word] + i * kWidth, &chains[i].words[word], sizeof(Vector));
        }
    }
};

}  // namespace
}  // namespace android::host
