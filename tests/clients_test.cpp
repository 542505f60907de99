// Clients that mean no good, or have no luck: whatever they do, an honest one is served.

#include <fcntl.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstring>
#include <fstream>
#include <random>

#include "tests/support/sandbox.h"
#include "utils/unique_fd.h"

namespace rux::test {
namespace {

using android::host::UniqueFd;

/// A request's header, written down here once more: magic, size, code, flags.
std::string header(uint32_t size, uint32_t code, uint32_t flags = 0) {
    const uint32_t words[] = {0x51585552, size, code, flags};
    return {reinterpret_cast<const char*>(words), sizeof(words)};
}

std::string requestFor(uint32_t code, const std::string& ascii) {
    std::string parcel(12, '\0');
    const auto append = [&parcel](const std::string& text) {
        const auto length = static_cast<uint32_t>(text.size());
        parcel.append(reinterpret_cast<const char*>(&length), sizeof(length));
        for (const char c : text) parcel += {c, '\0'};
        parcel.append(text.size() % 2 == 0 ? 4 : 2, '\0');
    };
    memcpy(parcel.data() + 8, "TSYS", 4);
    append("tavo.rux.IRux");
    append(ascii);
    return header(static_cast<uint32_t>(parcel.size()), code) + parcel;
}

class ClientsTest : public ServiceTest {
  protected:
    void SetUp() override {
        ServiceTest::SetUp();
        rlimit limit = {};
        getrlimit(RLIMIT_NOFILE, &limit);
        limit.rlim_cur = limit.rlim_max;
        setrlimit(RLIMIT_NOFILE, &limit);
    }
    UniqueFd connect() const {
        const UniqueFd directory(open((sandbox.root() + "/run/rux").c_str(), O_PATH | O_CLOEXEC));
        UniqueFd client(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
        sockaddr_un address = {};
        address.sun_family = AF_UNIX;
        snprintf(address.sun_path, sizeof(address.sun_path),
                 "/proc/self/fd/%d/RuxNativeService.sock", directory.get());
        EXPECT_EQ(::connect(client.get(), reinterpret_cast<sockaddr*>(&address), sizeof(address)),
                  0)
                << strerror(errno);
        return client;
    }
    /// Sends what is taken without waiting; the service may have hung up.
    static void sendTo(const UniqueFd& client, const std::string& bytes) {
        if (send(client.get(), bytes.data(), bytes.size(), MSG_NOSIGNAL | MSG_DONTWAIT) < 0) return;
    }
    /// Whether the service ends the connection, within some time.
    static bool isEnded(const UniqueFd& client) {
        return waitFor([&client] {
            char byte = 0;
            const ssize_t got = recv(client.get(), &byte, 1, MSG_DONTWAIT);
            return got == 0 || (got < 0 && errno == ECONNRESET);
        });
    }
    void expectHonestClientIsServed() const {
        const auto start = std::chrono::steady_clock::now();
        EXPECT_EQ(ruxctl({"call", "5"}).exit, 0);
        EXPECT_LT(std::chrono::steady_clock::now() - start,
                  std::chrono::seconds(RUX_SLOW_AND_LARGE ? 10 : 1));
    }
    size_t descriptors() const {
        const std::string names = run({"ls", "/proc/" + std::to_string(pid()) + "/fd"}).out;
        return static_cast<size_t>(std::count(names.begin(), names.end(), '\n'));
    }
    long residentKib() const {
        std::ifstream status("/proc/" + std::to_string(pid()) + "/status");
        std::string word;
        while (status >> word && word != "VmRSS:") {
        }
        long kib = 0;
        status >> kib;
        return kib;
    }
};

TEST_F(ClientsTest, SilentAndHalfFinishedOnes) {
    expectHonestClientIsServed();
    const size_t descriptorsBefore = descriptors();
    const long memoryBefore = residentKib();
    // Twice what unfinished frames may take; sanitizers keep what has been freed for a while.
    const long allowance = RUX_SLOW_AND_LARGE ? 8L << 20 : 128L << 10;
    {
        std::vector<UniqueFd> clients;
        for (int i = 0; i < 1000; ++i) {
            clients.push_back(connect());
            if (i % 4 == 1) sendTo(clients.back(), header(1000, 1).substr(0, 7));
            if (i % 4 == 2) sendTo(clients.back(), header(8 << 20, 1) + std::string(200000, 'x'));
            if (i % 4 == 3) sendTo(clients.back(), requestFor(2, "[]").substr(0, 60));
            if (i % 100 == 0) expectHonestClientIsServed();
        }
        expectHonestClientIsServed();
        EXPECT_LT(descriptors(), 600U);
        EXPECT_LT(residentKib(), memoryBefore + allowance);
    }
    EXPECT_TRUE(waitFor([&] { return descriptors() <= descriptorsBefore; }));
    expectHonestClientIsServed();
    // The allocator gives memory back when it has not been used for a second.
    EXPECT_TRUE(waitFor([&] { return residentKib() < memoryBefore + allowance / 8; }));
}

TEST_F(ClientsTest, OnesThatSendNoFrames) {
    for (const std::string& bytes :
         {header(0x80000000, 1), header((8 << 20) + 1, 1), header(0xffffffff, 5),
          std::string(16, '\0'), std::string(16, '\xff'),
          "GET / HTTP/1.0\r\n\r\n" + std::string(100, 'x')}) {
        const UniqueFd client = connect();
        sendTo(client, bytes);
        EXPECT_TRUE(isEnded(client));
    }
    std::mt19937 random(7);
    for (int i = 0; i < 300; ++i) {
        const UniqueFd client = connect();
        std::string bytes = i % 2 == 0 ? header(random() % 200, random() % 10) : std::string();
        for (size_t length = random() % 300; length > 0; --length)
            bytes += static_cast<char>(random());
        sendTo(client, bytes);
    }
    expectHonestClientIsServed();
    EXPECT_TRUE(isRunning());
}

TEST_F(ClientsTest, OnesThatDoNotWaitForTheirReply) {
    // Large replies that nobody reads, and calls whose client is gone before they are served.
    const std::string request = requestFor(2, "[" + std::string(100000, ' ') + "]");
    std::vector<UniqueFd> deaf;
    for (int i = 0; i < 100; ++i) {
        deaf.push_back(connect());
        for (int j = 0; j < 50; ++j) sendTo(deaf.back(), requestFor(2, "[]"));
        const UniqueFd hasty = connect();
        sendTo(hasty, request);
    }
    expectHonestClientIsServed();
    // The call of a client that died is carried out all the same; this one is never refused.
    {
        const UniqueFd client = connect();
        sendTo(client, requestFor(6, "[\"from the grave\"]"));
    }
    EXPECT_TRUE(waitFor([this] {
        return run({"test", "-s", sandbox.database("RUXExceptRules.json")}).exit == 0;
    }));
    EXPECT_TRUE(isRunning());
}

TEST_F(ClientsTest, OneWayRequestsGetNoReply) {
    const UniqueFd client = connect();
    std::string request = requestFor(6, "[\"one-way\"]");
    request[12] = 1;  // the flag
    sendTo(client, request);
    sendTo(client, requestFor(2, "[]"));
    uint32_t reply[3] = {};
    ASSERT_EQ(recv(client.get(), reply, sizeof(reply), MSG_WAITALL), 12);
    EXPECT_EQ(reply[0], 0x41585552U);
    EXPECT_EQ(reply[1], 4 + 4 + 2 * 13 + 2U) << "the reply is that of the second request";
    EXPECT_EQ(Json::parse(readFile(sandbox.database("RUXExceptRules.json"))),
              Json::array({"one-way"}));
}

TEST_F(ClientsTest, OtherUsersAreTurnedAway) {
    if (geteuid() != 0) GTEST_SKIP() << "needs root";
    const std::string run = sandbox.root() + "/run/rux";
    EXPECT_EQ(statusOf(run).st_mode & 077, 0U);
    // Even one who has come as far as the socket.
    ASSERT_EQ(chmod(run.c_str(), 0755), 0);
    ASSERT_EQ(chmod((run + "/RuxNativeService.sock").c_str(), 0777), 0);
    const UniqueFd directory(open(run.c_str(), O_PATH | O_CLOEXEC));
    const pid_t child = fork();
    if (child == 0) {
        if (fchdir(directory.get()) != 0 || setresuid(12345, 12345, 12345) != 0) _exit(2);
        sockaddr_un address = {};
        address.sun_family = AF_UNIX;
        strcpy(address.sun_path, "RuxNativeService.sock");  // NOLINT: it fits
        const int client = socket(AF_UNIX, SOCK_STREAM, 0);
        if (::connect(client, reinterpret_cast<sockaddr*>(&address), sizeof(address)) != 0)
            _exit(3);
        char byte = 0;
        _exit(recv(client, &byte, 1, 0) <= 0 ? 0 : 4);
    }
    int status = 0;
    waitpid(child, &status, 0);
    EXPECT_EQ(status, 0) << WEXITSTATUS(status);
    chmod(run.c_str(), 0700);
    expectHonestClientIsServed();
}

TEST_F(ClientsTest, LargeTextsAndHostilePatterns) {
    const std::string name(255, 'a');
    sandbox.write(name, "x");
    std::string deep = std::string(250, 'a');
    while (sandbox.path(deep).size() < 3800) deep += "/" + std::string(250, 'a');
    sandbox.write(deep + "/" + std::string(4095 - sandbox.path(deep).size() - 1, 'a'), "x");
    for (const char* pattern : {"(a+)+b", "(.*)*x", "(a|aa)+$", "(.*a){50}b", "(.*)(.*)(.*)\\1b"}) {
        transact(1, rule("s", {pattern, std::string(pattern) + "|y"}, {sandbox.tree()}));
        ASSERT_TRUE(isRunning()) << pattern;
    }
    transact(1, rule("s", {".*"}, {sandbox.tree()}));
    EXPECT_EQ(database("RUXFileInfo.json").size(), 2U);
    const size_t most = (4 << 20) - 200;  // characters that a frame can hold
    for (const std::string& text :
         {std::string(most, 'x'), "\"" + std::string(most, 'x') + "\"",
          "[\"" + std::string(most, '(') + "\"]", std::string(100000, '['),
          Json(std::vector<std::string>(10000, "x(")).dump()}) {
        for (const int code : {1, 2, 3, 4, 6}) call(code, text);
        const Json asPattern = rule("s", {text.substr(0, most / 2)}, {sandbox.tree()});
        transact(1, asPattern);
        ASSERT_TRUE(isRunning());
    }
    // A million elements: each that cannot be used has a log line in a scan, none in a compression.
    const std::string million = Json(std::vector<int>(1000000, 1)).dump();
    for (const int code : {3, 6}) call(code, million);
    const std::string nulls = Json(std::vector<int>(100000, 1)).dump();
    for (const int code : {1, 2, 4}) call(code, nulls);
    transact(1, rule("s", std::vector<std::string>(200000, "x"), {sandbox.path(name)}));
    EXPECT_EQ(ruxctl({"call", "2", "-"}, std::string(5 << 20, ' ')).exit, 1)
            << "larger than a frame";
    expectHonestClientIsServed();
}

}  // namespace
}  // namespace rux::test
