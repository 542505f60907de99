// Compressions: what can be seen while they run, and when they answer.

#include <filesystem>

#include "tests/support/sandbox.h"

namespace rux::test {
namespace {

namespace fs = std::filesystem;

constexpr char kProgress[] = "sys.ruxservice.compress.prog";

class CompressTest : public ServiceTest {
  protected:
    std::string compress() const { return call(3, Json::array({"s"})); }
};

TEST_F(CompressTest, PublishesProgressInHundreds) {
    constexpr int kSize = 1 << 20;  // so that each value stands long enough to be seen
    for (int i = 0; i <= 250; ++i) {
        fs::resize_file(sandbox.write("f" + std::to_string(i), "sparse"), kSize);
    }
    scanTree();
    setProperty(kProgress, "something else");
    std::vector<std::string> seen{property(kProgress)};
    std::string result;
    {
        const Hammer watch([&] {
            const std::string now = property(kProgress);
            if (seen.back() != now) seen.push_back(now);
        });
        result = compress();
    }
    EXPECT_EQ(result, "1," + std::to_string(250 * kSize));
    EXPECT_EQ(seen, (std::vector<std::string>{"something else", "0", "100", "200"}));
}

TEST_F(CompressTest, HasClosedWhatItReplacedWhenItAnswers) {
    for (int round = 0; round < 30; ++round) {
        const std::string space = "r" + std::to_string(round);
        for (const char* name : {"/1", "/2", "/3"})
            sandbox.write(space + name, std::string(1 << 20, 'x'));
        transact(1, rule(space, {".*"}, {sandbox.path(space)}));
        transact(3, Json::array({space}));
        for (const auto& open : fs::directory_iterator("/proc/" + std::to_string(pid()) + "/fd")) {
            std::error_code gone;
            EXPECT_EQ(fs::read_symlink(open, gone).native().find(sandbox.tree()), std::string::npos)
                    << "its blocks are not free";
        }
    }
}

}  // namespace
}  // namespace rux::test
