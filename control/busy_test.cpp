#include "control/busy.h"

#include <gtest/gtest.h>

#include <atomic>
#include <barrier>
#include <thread>
#include <vector>

namespace rux {
namespace {

TEST(BusyTest, AdmitsOneOfAllThatAskAtOnce) {
    constexpr int kThreads = 8;
    const Operation kinds[] = {Operation::Listing, Operation::Scan, Operation::Compression,
                               Operation::Restore};
    for (int round = 0; round < 500; ++round) {
        std::atomic<int> admitted{0};
        std::barrier together(kThreads);
        std::vector<std::thread> threads;
        threads.reserve(kThreads);
        for (int i = 0; i < kThreads; ++i) {
            threads.emplace_back([&, kind = kinds[i % 4]] {
                together.arrive_and_wait();
                const BusyGuard guard(kind);
                if (guard.admitted()) {
                    ++admitted;
                    EXPECT_TRUE(isBusy(kind));
                }
                together.arrive_and_wait();  // nobody gives up before all have asked
            });
        }
        for (std::thread& thread : threads) thread.join();
        ASSERT_EQ(admitted, 1);
        ASSERT_FALSE(isAnyBusy());
    }
}

TEST(BusyTest, ARefusedGuardLeavesTheFlagAlone) {
    const BusyGuard scan(Operation::Scan);
    { EXPECT_FALSE(BusyGuard(Operation::Listing).admitted()); }
    EXPECT_TRUE(isBusy(Operation::Scan));
    EXPECT_FALSE(isBusy(Operation::Listing));
}

}  // namespace
}  // namespace rux
