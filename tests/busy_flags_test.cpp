// The long operations keep out of each other's way.

#include <sys/stat.h>

#include <latch>
#include <thread>

#include "tests/support/sandbox.h"

namespace rux::test {
namespace {

constexpr char kRefusedScan[] = "the scan has been started";
constexpr char kRefusedListing[] = "the Rux_getDuplicateFilesImp has been start, return";
constexpr char kRefusedLink[] = "the Compress has been started,return";

/// What each operation is called with.
struct LongOperation {
    int code;
    Json request;
};

class BusyFlagsTest : public ServiceTest {
  protected:
    void SetUp() override {
        ServiceTest::SetUp();
        sandbox.write("a", "same");
        sandbox.write("b", "same");
        scanTree();
        mkdir(sandbox.database("held").c_str(), 0700);
    }

    /// Fails the test unless it is so, and lets no client wait for the service any longer.
    void endUnless(bool expected) {
        if (!expected) kill();
        ASSERT_TRUE(expected) << log();
    }

    /// The operations on a space.
    std::vector<LongOperation> on(const std::string& space) const {
        const Json rules = rule(space, {".*"}, {sandbox.tree()});
        return {{1, rules}, {2, rules}, {3, Json::array({space})}, {4, rules}};
    }

    /// What an operation on the space "held" reads once it has been admitted: the restore the
    /// linked groups alone, the others these or both.
    const std::vector<std::string> groups = {sandbox.database("held", "RUXCheckNoCompress.json"),
                                             sandbox.database("held", "RUXCheckACompress.json")};
};

TEST_F(BusyFlagsTest, OneOfManyIsAdmitted) {
    constexpr int kRounds = 200;
    constexpr int kClients = 6;
    const auto refusals = [this] {
        return logged(kRefusedScan) + logged(kRefusedListing) + logged(kRefusedLink);
    };
    const std::vector<LongOperation> operations = on("held");
    for (int round = 0; round < kRounds; ++round) {
        HeldFiles held(groups);
        const int before = refusals();
        std::atomic<int> answered{0};
        std::latch together(kClients);
        std::vector<std::jthread> clients;
        for (int i = 0; i < kClients; ++i) {
            const LongOperation& operation =
                    operations[static_cast<size_t>(round + i) % operations.size()];
            clients.emplace_back([&, this] {
                together.arrive_and_wait();
                transact(operation.code, operation.request);
                ++answered;
            });
        }
        ASSERT_NO_FATAL_FAILURE(endUnless(waitFor([&] { return answered == kClients - 1; })))
                << "two were admitted";
        ASSERT_NO_FATAL_FAILURE(endUnless(held.awaitReader()));
        held.letGo();
        clients.clear();
        ASSERT_EQ(refusals() - before, kClients - 1);
        ASSERT_TRUE(isRunning());
    }
}

}  // namespace
}  // namespace rux::test
