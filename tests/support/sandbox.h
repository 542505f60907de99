/// What every whole-service test works with: a root of its own, files of its own, the service as a
/// process, and its client.
#pragma once

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <nlohmann/json.hpp>
#include <string>
#include <thread>
#include <vector>

#include "properties/store.h"

namespace rux::test {

using Json = nlohmann::json;  // not the reader under test

/// What a program that has ended left.
struct Outcome {
    int exit = -1;  // its exit status; 128 and the signal when one ended it
    std::string out;
    std::string err;
};

/// The service's program: this build's, or the one that RUX_TEST_BINARY names.
const char* ruxBinary();

/// Runs a program to its end with `RUX_ROOT` set to `root`.
Outcome run(const std::vector<std::string>& command, const std::string& root = "",
            const std::string& input = "");

/// Waits up to 30 seconds for `condition`; false when it has not come true.
bool waitFor(const std::function<bool()>& condition);

/// A directory that is removed with the object; below it "root" for RUX_ROOT and "tree" for files.
class Sandbox {
  public:
    Sandbox();
    ~Sandbox();
    Sandbox(const Sandbox&) = delete;
    Sandbox& operator=(const Sandbox&) = delete;

    std::string root() const { return mBase + "/root"; }
    std::string tree() const { return mBase + "/tree"; }
    /// Path of `name` in the tree.
    std::string path(const std::string& name) const { return tree() + "/" + name; }
    /// Path of a space's database file, or of the space's directory.
    std::string database(const std::string& space, const std::string& file = "") const;

    /// Writes a file of the tree, with its directories; returns its path.
    std::string write(const std::string& name, const std::string& content) const;

  private:
    std::string mBase;
};

std::string readFile(const std::string& path);
void writeFile(const std::string& path, const std::string& content);
struct stat statusOf(const std::string& path);
ino_t inodeOf(const std::string& path);
/// What md5sum prints for the file.
std::string md5sum(const std::string& path);
/// What md5sum prints for each file with content below `directory`: "digest  path" lines, sorted.
std::vector<std::string> md5sumsBelow(const std::string& directory);

/// A sandbox with the service running in it.
class ServiceTest : public testing::Test {
  protected:
    void SetUp() override { start(); }
    void TearDown() override { kill(); }

    /// Starts the service, with `prefix` before its command, and waits until it answers.
    void start(std::vector<std::string> prefix = {});
    /// Ends the service (SIGKILL).
    void kill();
    bool isRunning() const;
    pid_t pid() const { return mPid; }

    Outcome ruxctl(std::vector<std::string> arguments, const std::string& input = "") const;
    /// One transaction that must succeed, and its result.
    std::string call(int code, const std::string& request) const;
    std::string call(int code, const char* request) const {
        return call(code, std::string(request));
    }
    std::string call(int code, const Json& request) const { return call(code, request.dump()); }
    /// The same without a process for the client, for tests that call very often or have little
    /// time.
    std::string transact(int code, const std::string& request) const;
    std::string transact(int code, const Json& request) const {
        return transact(code, request.dump());
    }
    /// A request of one space rule.
    static Json rule(const std::string& space, const Json& regs, const Json& dirs);
    /// Scans the whole tree into space "s".
    void scanTree() const { call(1, rule("s", {".*"}, {sandbox.tree()})); }

    Json database(const std::string& file, const std::string& space = "s") const;
    std::string log() const { return readFile(mLog); }
    /// How often `text` stands in the log.
    int logged(const std::string& text) const;
    std::string property(const std::string& name) const { return mProperties->get(name, ""); }
    void setProperty(const std::string& name, const std::string& value) const {
        ASSERT_TRUE(mProperties->set(name, value));
    }

    Sandbox sandbox;

  private:
    pid_t mPid = -1;
    std::string mLog = sandbox.root() + "/log";
    std::unique_ptr<android::host::PropertyStore> mProperties;
};

/// Calls `step` over and over on a thread of its own until the object goes.
class Hammer {
  public:
    explicit Hammer(std::function<void()> step)
          : mThread([this, step = std::move(step)] {
                while (!mStop) step();
            }) {}
    ~Hammer() {
        mStop = true;
        mThread.join();
    }
    Hammer(const Hammer&) = delete;
    Hammer& operator=(const Hammer&) = delete;

  private:
    std::atomic<bool> mStop{false};
    std::thread mThread;
};

}  // namespace rux::test
