#include "scan/entry_stream.h"

#include <gtest/gtest.h>

#include "tests/support/sandbox.h"

namespace rux {
namespace {

std::deque<Entry> read(EntryStream& stream, size_t count) {
    std::deque<Entry> entries;
    while (entries.size() < count) {
        std::optional<Entry> entry = stream.next();
        if (!entry) break;
        entries.push_back(std::move(*entry));
    }
    return entries;
}

TEST(EntryStreamTest, GivesAgainWhatLiesBehindADirectoryThatWasLeft) {
    test::Sandbox sandbox;
    for (const char* name : {"1", "2", "3", "4", "5"}) sandbox.write(name, "x");
    const std::string tree = sandbox.path(".");
    const Reach reach;
    EntryStream reference(tree, reach);
    std::deque<Entry> expected = read(reference, 100);
    ASSERT_EQ(expected.size(), 7U);

    EntryStream stream(tree, reach);
    stream.leaveDirectory(2, read(stream, 100));  // nothing is that deep
    stream.leaveDirectory(2, read(stream, 2));    // while the others have not come again
    const std::deque<Entry> again = read(stream, 100);
    ASSERT_EQ(again.size(), expected.size());
    for (size_t i = 0; i < again.size(); ++i) EXPECT_EQ(again[i].path, expected[i].path);

    stream.leaveDirectory(1, {});
    EXPECT_FALSE(stream.next());
}

}  // namespace
}  // namespace rux
