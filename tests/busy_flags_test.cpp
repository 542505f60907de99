// The long operations keep out of each other's way.

#include <unistd.h>

#include <map>
#include <thread>

#include "tests/support/sandbox.h"

namespace rux::test {
namespace {

constexpr char kRefusedScan[] = "the scan has been started";
constexpr char kRefusedListing[] = "the Rux_getDuplicateFilesImp has been start, return";
constexpr char kRefusedLink[] = "the Compress has been started,return";

/// What each operation is called with, for a space in which it takes long, and its refusal.
struct LongOperation {
    int code;
    Json request;
    std::string refusal;
    std::string line;
};

class BusyFlagsTest : public ServiceTest {
  protected:
    void SetUp() override {
        ServiceTest::SetUp();
        sandbox.write("a", "same");
        sandbox.write("b", "same");
        scanTree();
        // A group that names one file very often: every operation takes each name for itself.
        const std::string a = sandbox.path("a");
        const auto groupOf = [&a](size_t members) {
            const std::vector<std::string> paths(members, a);
            return Json({{md5sum(a), {{"V", 1}, {"f_size", 4}, {"f_list", paths}}}}).dump();
        };
        mkdir(sandbox.database("long").c_str(), 0700);
        writeFile(sandbox.database("long", "RUXFileInfo.json"),
                  readFile(sandbox.database("s", "RUXFileInfo.json")));
        writeFile(sandbox.database("long", "RUXCheckNoCompress.json"), groupOf(150000));
        writeFile(sandbox.database("long", "RUXCheckACompress.json"), groupOf(150000));
        // And a directory of many names, to be walked very often.
        const std::string many = sandbox.root() + "/many";
        mkdir(many.c_str(), 0700);
        for (int i = 0; i < 5000; ++i) {
            ASSERT_EQ(link(a.c_str(), (many + "/" + std::to_string(i)).c_str()), 0);
        }
        const std::vector<std::string> places(1000, many);
        operations = {
                {1, rule("long", {".*/none"}, places), "", kRefusedScan},
                {2, rule("long", {".*"}, places), "{}", kRefusedListing},
                {3, Json::array({"long"}), "0,0", kRefusedLink},
                {4, rule("long", {".*"}, Json::array()), "0\n", kRefusedLink},
        };
    }

    void stopEverything() const {
        for (const char* operation : {"scan", "get_duplicate_files", "compress"}) {
            setProperty(std::string("sys.ruxservice.stop_") + operation, "true");
        }
    }

    std::vector<LongOperation> operations;
};

TEST_F(BusyFlagsTest, EachRefusesWhileAnyRuns) {
    // The restore last: it uses its group up.
    for (const LongOperation& running : operations) {
        std::atomic<bool> done{false};
        std::jthread client([&] {
            call(running.code, running.request);
            done = true;
        });
        // It has been admitted once a restore that cannot be read, and so is never admitted
        // itself, is refused.
        const int refusals = logged(kRefusedLink);
        ASSERT_TRUE(waitFor([&] {
            transact(4, std::string("not JSON"));
            return logged(kRefusedLink) > refusals;
        }));
        const std::map<std::string, std::string> before =
                {{"groups", readFile(sandbox.database("s", "RUXCheckNoCompress.json"))},
                 {"records", readFile(sandbox.database("s", "RUXFileInfo.json"))}};
        setProperty("sys.ruxservice.compress.prog", "unchanged");
        for (const LongOperation& refused : operations) {
            const int lines = logged(refused.line);
            EXPECT_EQ(transact(refused.code, refused.code == 3
                                                     ? Json::array({"s"})
                                                     : rule("s", {".*"}, {sandbox.tree()})),
                      refused.refusal);
            EXPECT_EQ(logged(refused.line), lines + 1) << refused.code << " in " << running.code;
        }
        const int noted = logged("RUX native service is active, stop");
        transact(5, std::string());
        transact(7, std::string());
        EXPECT_EQ(logged("RUX native service is active, stop") - noted,
                  running.code == 1 || running.code == 3 ? 1 : 0);
        EXPECT_FALSE(done) << "the running operation was too short for this test";
        EXPECT_EQ(before.at("groups"), readFile(sandbox.database("s", "RUXCheckNoCompress.json")));
        EXPECT_EQ(before.at("records"), readFile(sandbox.database("s", "RUXFileInfo.json")));
        if (running.code != 3) {
            EXPECT_EQ(property("sys.ruxservice.compress.prog"), "unchanged");
        }
        while (!done) stopEverything();
        client.join();
    }
    EXPECT_EQ(call(2, "[]"), "{\"isEnd\":1}\n") << "all flags are clear again";
}

TEST_F(BusyFlagsTest, OneOfManyIsAdmitted) {
    operations.pop_back();  // a restore cannot be stopped
    constexpr int kRounds = 200;
    constexpr int kClients = 6;
    const auto refusals = [this] {
        return logged(kRefusedScan) + logged(kRefusedListing) + logged(kRefusedLink);
    };
    for (int round = 0; round < kRounds; ++round) {
        const int before = refusals();
        std::atomic<int> answered{0};
        std::vector<std::thread> clients;
        for (int i = 0; i < kClients; ++i) {
            const LongOperation& operation = operations[static_cast<size_t>(round + i) % 3];
            clients.emplace_back([&, this] {
                transact(operation.code, operation.request);
                ++answered;
            });
        }
        ASSERT_TRUE(waitFor([&] { return answered >= kClients - 1; })) << "two were admitted";
        while (answered < kClients) stopEverything();
        for (std::thread& client : clients) client.join();
        ASSERT_EQ(refusals() - before, kClients - 1);
        ASSERT_TRUE(isRunning());
    }
}

}  // namespace
}  // namespace rux::test
