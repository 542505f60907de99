// Scans of great numbers and great depth; what they do else is the model's matter.

#include <filesystem>

#include "tests/support/sandbox.h"

namespace rux::test {
namespace {

namespace fs = std::filesystem;

constexpr char kRecords[] = "RUXFileInfo.json";
constexpr char kGroups[] = "RUXCheckNoCompress.json";

class ScanTest : public ServiceTest {};

TEST_F(ScanTest, FindsMembersOfLargeGroupsAgain) {
    constexpr size_t kFiles = 16385;  // one more than enter their groups at once
    for (size_t i = 0; i < kFiles; ++i)
        sandbox.write("d" + std::to_string(i % 7) + "/" + std::to_string(i), "x");
    scanTree();
    // Without the records all members are met anew; one that is edited into the group is there
    // already.
    Json groups = database(kGroups);
    const std::string digest = md5sum(sandbox.path("d0/0"));
    EXPECT_EQ(groups[digest]["f_list"].size(), kFiles);
    const std::string added = sandbox.write("e/added", "x");
    groups[digest]["f_list"].push_back(added);
    writeFile(sandbox.database("s", kGroups), groups.dump());
    scanTree();
    EXPECT_EQ(database(kGroups), groups);
    EXPECT_EQ(database(kRecords)[added]["is_md5"], 1);
    fs::remove(sandbox.database("s", kRecords));
    scanTree();
    EXPECT_EQ(database(kGroups), groups);
    EXPECT_EQ(database(kRecords).size(), kFiles + 1);
}

TEST_F(ScanTest, TreesDeeperThanAPathAreWalkedAsFarAsPathsReach) {
    const int levels = 2200;
    const Outcome made = run({"python3", "-c",
                              "import os,sys\n"
                              "os.chdir(sys.argv[1])\n"
                              "for i in range(int(sys.argv[2])):\n"
                              "    os.mkdir('d'); os.chdir('d')\n"
                              "    open('f','w').write('x')\n",
                              sandbox.tree(), std::to_string(levels)});
    ASSERT_EQ(made.exit, 0) << made.err;
    scanTree();
    const size_t reachable = (4095 - sandbox.tree().size() - 2) / 2;
    EXPECT_EQ(database(kRecords).size(), reachable);
}

}  // namespace
}  // namespace rux::test
