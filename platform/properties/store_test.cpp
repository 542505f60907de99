#include "properties/store.h"

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <csignal>
#include <thread>

#include "tests/support/sandbox.h"

namespace android::host {
namespace {

class StoreTest : public testing::Test {
  protected:
    std::string directory() const { return sandbox.path("run/rux"); }

    rux::test::Sandbox sandbox;
    PropertyStore store{directory()};
};

TEST_F(StoreTest, KeepsShortTexts) {
    EXPECT_EQ(store.get("a", "default"), "default");
    EXPECT_NE(access(directory().c_str(), F_OK), 0) << "a read makes nothing";
    EXPECT_TRUE(store.set("a", "1"));
    EXPECT_TRUE(store.set("a.b", "2"));
    EXPECT_TRUE(store.set("a", std::string(91, 'x')));
    EXPECT_EQ(store.get("a", ""), std::string(91, 'x'));
    EXPECT_EQ(store.get("a.b", ""), "2");
    EXPECT_TRUE(store.set("a", ""));
    EXPECT_EQ(store.get("a", "default"), "default") << "empty is as good as unset";
    EXPECT_EQ(rux::test::statusOf(directory()).st_mode & 07777, 0700U);
}

TEST_F(StoreTest, RefusesWhatItCannotHold) {
    EXPECT_TRUE(store.set("a", "before"));
    EXPECT_FALSE(store.set("a", std::string(92, 'x')));
    EXPECT_FALSE(store.set("a", std::string("x\0y", 3)));
    EXPECT_EQ(store.get("a", ""), "before");
    EXPECT_FALSE(store.set("", "x"));
    EXPECT_FALSE(store.set(std::string(120, 'n'), "x"));
    EXPECT_TRUE(store.set(std::string(119, 'n'), "x"));
    int taken = 2;
    while (store.set("name" + std::to_string(taken), "x") && taken < 10000) ++taken;
    EXPECT_EQ(taken, 128);
    EXPECT_EQ(store.get("name127", ""), "x");
}

TEST_F(StoreTest, RefusesADirectoryThatOthersMayEnter) {
    ASSERT_TRUE(store.set("a", "1"));
    chmod(directory().c_str(), 0755);
    EXPECT_EQ(PropertyStore(directory()).get("a", "unreadable"), "unreadable");
    EXPECT_FALSE(PropertyStore(directory()).set("a", "2"));
}

TEST_F(StoreTest, RefusesAFileOfAnotherSize) {
    ASSERT_TRUE(store.set("a", "1"));
    ASSERT_EQ(truncate((directory() + "/properties").c_str(), 3), 0);
    EXPECT_FALSE(PropertyStore(directory()).set("a", "2"));
    EXPECT_EQ(rux::test::statusOf(directory() + "/properties").st_size, 3);
}

TEST_F(StoreTest, ReadersInOtherProcessesSeeWholeValuesWhateverWritersDo) {
    // Writers in two processes, one of which is killed again and again in the middle of it.
    const std::string longValue(91, 'l');
    const auto writeForEver = [&] {
        PropertyStore own(directory());
        while (true) {
            own.set("contended", "short");
            own.set("contended", longValue);
        }
    };
    ASSERT_TRUE(store.set("contended", "short"));
    std::atomic<bool> done{false};
    std::atomic<int> reads{0};
    std::thread reader([&] {
        PropertyStore own(directory());
        while (!done) {
            const std::string value = own.get("contended", "");
            ++reads;
            if (value != "short" && value != longValue) ADD_FAILURE() << "half a value: " << value;
        }
    });
    for (int round = 0; round < 20; ++round) {
        pid_t writers[2];
        for (pid_t& writer : writers) {
            writer = fork();
            if (writer == 0) writeForEver();
        }
        usleep(5000);
        for (const pid_t writer : writers) {
            kill(writer, SIGKILL);
            waitpid(writer, nullptr, 0);
        }
        ASSERT_TRUE(store.set("contended", "short")) << "a dead writer holds the lock";
        ASSERT_EQ(store.get("contended", ""), "short");
    }
    done = true;
    reader.join();
    EXPECT_GT(reads, 1000);
}

}  // namespace
}  // namespace android::host
