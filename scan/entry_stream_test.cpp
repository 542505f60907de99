#include "scan/entry_stream.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>

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

TEST(EntryStreamTest, LeavesADirectoryHoweverFarItHasBeenReadAhead) {
    test::Sandbox sandbox;
    for (const char* directory : {"a/b", "c/d"}) {
        std::filesystem::create_directories(sandbox.path(directory));
        for (const char* name : {"/1", "/2", "/../3"})
            sandbox.write(directory + std::string(name), "x");
    }
    const Reach reach;
    EntryStream reference(sandbox.path("."), reach);
    const std::deque<Entry> all = read(reference, 100);
    for (size_t met = 1; met <= all.size(); ++met) {
        for (size_t ahead = 0; met + ahead <= all.size(); ++ahead) {
            const size_t depth = all[met - 1].depth;
            EntryStream stream(sandbox.path("."), reach);
            read(stream, met);
            stream.leaveDirectory(depth, read(stream, ahead));
            const auto isAbove = [depth](const Entry& entry) { return entry.depth < depth; };
            auto expected =
                    std::find_if(all.begin() + static_cast<ptrdiff_t>(met), all.end(), isAbove);
            for (const Entry& entry : read(stream, 100)) {
                ASSERT_NE(expected, all.end()) << met << " met, " << ahead << " ahead";
                EXPECT_EQ(entry.path, expected->path);
                EXPECT_EQ(entry.depth, expected++->depth);
            }
            EXPECT_EQ(expected, all.end()) << met << " met, " << ahead << " ahead";
        }
    }
}

}  // namespace
}  // namespace rux
