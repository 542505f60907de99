#include "scan/digest_cache.h"

#include <gtest/gtest.h>

#include <ctime>

namespace rux {
namespace {

TEST(DigestCacheTest, AnswersWithTheDigestOfAnotherNameOnlyWhereAChangeWouldShow) {
    const SharedDigest first = notComputed();
    const SharedDigest second = notComputed();
    struct stat status = {};
    status.st_ino = 1;
    status.st_size = 10;
    clock_gettime(CLOCK_REALTIME, &status.st_ctim);
    DigestCache cache;
    EXPECT_EQ(cache.findOrAdd(status, first), first);
    EXPECT_EQ(cache.findOrAdd(status, second), second) << "it may have been changed since";

    status.st_ctim.tv_sec -= 1;
    EXPECT_EQ(cache.findOrAdd(status, first), first);
    EXPECT_EQ(cache.findOrAdd(status, second), first);
    struct stat changed = status;
    changed.st_mtim.tv_nsec += 1;
    EXPECT_EQ(cache.findOrAdd(changed, second), second);
    cache.remove(status);
    EXPECT_EQ(cache.findOrAdd(status, second), second);
}

}  // namespace
}  // namespace rux
