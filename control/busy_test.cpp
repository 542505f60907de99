#include "control/busy.h"

#include <gtest/gtest.h>

#include <atomic>
#include <thread>
#include <vector>

namespace rux {
namespace {

TEST(BusyGuardTest, AdmitsOneOfThoseWhoAskAtOnce) {
    std::atomic<int> inside{0};
    std::vector<std::thread> callers;
    for (const Operation operation :
         {Operation::Listing, Operation::Scan, Operation::Compression, Operation::Restore}) {
        callers.emplace_back([&inside, operation] {
            for (int admissions = 0; admissions < 20000;) {
                const BusyGuard guard(operation);
                if (!guard.admitted()) continue;
                ++admissions;
                ASSERT_EQ(inside++, 0);
                ASSERT_TRUE(isBusy(operation) && isAnyBusy());
                --inside;
            }
        });
    }
    for (std::thread& caller : callers) caller.join();
    EXPECT_FALSE(isAnyBusy());
}

}  // namespace
}  // namespace rux
