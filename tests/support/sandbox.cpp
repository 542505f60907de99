#include "tests/support/sandbox.h"

#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <sstream>

#include "binder/IServiceManager.h"
#include "binder/Parcel.h"
#include "binder/Status.h"

namespace rux::test {
namespace {

namespace fs = std::filesystem;

/// The environment with RUX_ROOT set, and without what would change the log.
std::vector<std::string> environmentFor(const std::string& root) {
    std::vector<std::string> environment = {"RUX_ROOT=" + root};
    for (char** entry = environ; *entry != nullptr; ++entry) {
        const std::string text = *entry;
        const bool ours = text.starts_with("RUX_ROOT=") || text.starts_with("ANDROID_LOG_TAGS=");
        if (!ours) environment.push_back(text);
    }
    return environment;
}

std::vector<char*> pointersTo(std::vector<std::string>& texts) {
    std::vector<char*> pointers;
    pointers.reserve(texts.size() + 1);
    for (std::string& text : texts) pointers.push_back(text.data());
    pointers.push_back(nullptr);
    return pointers;
}

/// Starts a program whose standard streams are the given descriptors.
pid_t spawn(std::vector<std::string> command, const std::string& root, int in, int out, int err) {
    std::vector<std::string> environment = environmentFor(root);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, in, 0);
    posix_spawn_file_actions_adddup2(&actions, out, 1);
    posix_spawn_file_actions_adddup2(&actions, err, 2);
    pid_t pid = -1;
    const int error = posix_spawnp(&pid, command[0].c_str(), &actions, nullptr,
                                   pointersTo(command).data(), pointersTo(environment).data());
    posix_spawn_file_actions_destroy(&actions);
    EXPECT_EQ(error, 0) << command[0];
    return pid;
}

int temporaryFile(const std::string& content) {
    std::string name = fs::temp_directory_path() / "rux-stream-XXXXXX";
    const int file = mkostemp(name.data(), O_CLOEXEC);
    unlink(name.c_str());
    EXPECT_EQ(write(file, content.data(), content.size()), static_cast<ssize_t>(content.size()));
    lseek(file, 0, SEEK_SET);
    return file;
}

std::string contentOf(int file) {
    std::string content(static_cast<size_t>(lseek(file, 0, SEEK_END)), '\0');
    EXPECT_EQ(pread(file, content.data(), content.size(), 0), static_cast<ssize_t>(content.size()));
    close(file);
    return content;
}

int exitOf(int status) {
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

}  // namespace

const char* ruxBinary() {
    const char* other = getenv("RUX_TEST_BINARY");
    return other != nullptr ? other : RUX_BINARY;
}

Outcome run(const std::vector<std::string>& command, const std::string& root,
            const std::string& input) {
    const int in = temporaryFile(input);
    const int out = temporaryFile("");
    const int err = temporaryFile("");
    const pid_t pid = spawn(command, root, in, out, err);
    int status = 0;
    waitpid(pid, &status, 0);
    close(in);
    return {exitOf(status), contentOf(out), contentOf(err)};
}

bool waitFor(const std::function<bool()>& condition) {
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(30);
    while (!condition()) {
        if (std::chrono::steady_clock::now() > end) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    return true;
}

Sandbox::Sandbox() {
    mBase = fs::temp_directory_path() / "rux-test-XXXXXX";
    if (mkdtemp(mBase.data()) == nullptr) abort();
    fs::create_directories(root() + "/data/local/zel");
    fs::create_directories(tree());
}

Sandbox::~Sandbox() {
    std::error_code ignored;
    fs::remove_all(mBase, ignored);
}

std::string Sandbox::database(const std::string& space, const std::string& file) const {
    return root() + "/data/local/zel/" + space + (file.empty() ? "" : "/") + file;
}

std::string Sandbox::write(const std::string& name, const std::string& content) const {
    fs::create_directories(fs::path(path(name)).parent_path());
    writeFile(path(name), content);
    return path(name);
}

std::string readFile(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    EXPECT_TRUE(file) << path;
    return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
}

void writeFile(const std::string& path, const std::string& content) {
    std::ofstream file(path, std::ios::binary | std::ios::trunc);
    file << content;
    file.close();
    EXPECT_TRUE(file) << path;
}

struct stat statusOf(const std::string& path) {
    struct stat st = {};
    EXPECT_EQ(lstat(path.c_str(), &st), 0) << path;
    return st;
}

ino_t inodeOf(const std::string& path) {
    return statusOf(path).st_ino;
}

std::string md5sum(const std::string& path) {
    return run({"md5sum", "-z", path}).out.substr(0, 32);
}

std::vector<std::string> md5sumsBelow(const std::string& directory) {
    const Outcome outcome = run({"sh", "-c",
                                 "find \"$0\" -type f -size +0 -print0 | xargs -0 -r md5sum "
                                 "| sort",
                                 directory});
    std::vector<std::string> lines;
    std::istringstream text(outcome.out);
    for (std::string line; std::getline(text, line);) lines.push_back(line);
    return lines;
}

void ServiceTest::start(std::vector<std::string> prefix) {
    setenv("RUX_ROOT", sandbox.root().c_str(), 1);  // for `transact`
    prefix.emplace_back(ruxBinary());
    const int log = open(mLog.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600);
    const int null = open("/dev/null", O_RDWR | O_CLOEXEC);
    mPid = spawn(prefix, sandbox.root(), null, null, log);
    close(log);
    close(null);
    mProperties = std::make_unique<android::host::PropertyStore>(sandbox.root() + "/run/rux");
    ASSERT_TRUE(waitFor([this] { return ruxctl({"call", "5"}).exit == 0; })) << this->log();
}

void ServiceTest::kill() {
    if (mPid < 0) return;
    EXPECT_TRUE(isRunning()) << "the service has ended by itself: " << log();
    ::kill(mPid, SIGKILL);
    waitpid(mPid, nullptr, 0);
    mPid = -1;
}

bool ServiceTest::isRunning() const {
    return waitpid(mPid, nullptr, WNOHANG) == 0;
}

Outcome ServiceTest::ruxctl(std::vector<std::string> arguments, const std::string& input) const {
    arguments.insert(arguments.begin(), RUXCTL_BINARY);
    return run(arguments, sandbox.root(), input);
}

std::string ServiceTest::call(int code, const std::string& request) const {
    const Outcome outcome = ruxctl({"call", std::to_string(code), "-"}, request);
    EXPECT_EQ(outcome.exit, 0) << outcome.err;
    return outcome.out;
}

std::string ServiceTest::transact(int code, const std::string& request) const {
    const auto service =
            android::defaultServiceManager()->checkService(android::String16("RuxNativeService"));
    if (service == nullptr) throw std::runtime_error("no service answers");
    android::Parcel data;
    android::Parcel reply;
    data.writeInterfaceToken(android::String16("tavo.rux.IRux"));
    data.writeUtf8AsUtf16(request);
    EXPECT_EQ(service->transact(static_cast<uint32_t>(code), data, &reply, 0), android::OK);
    android::binder::Status status;
    EXPECT_EQ(status.readFromParcel(reply), android::OK);
    EXPECT_TRUE(status.isOk());
    std::string text;
    int64_t number = 0;
    if (code == 2 || code == 3) {
        EXPECT_EQ(reply.readUtf8FromUtf16(&text), android::OK);
    }
    if (code != 4) return text;
    EXPECT_EQ(reply.readInt64(&number), android::OK);
    return std::to_string(number) + "\n";
}

Json ServiceTest::rule(const std::string& space, const Json& regs, const Json& dirs) {
    return Json::array({{{"sid", space}, {"regs", regs}, {"dirs", dirs}}});
}

Json ServiceTest::database(const std::string& file, const std::string& space) const {
    return Json::parse(readFile(sandbox.database(space, file)));
}

int ServiceTest::logged(const std::string& text) const {
    const std::string all = log();
    int count = 0;
    for (size_t at = all.find(text); at != std::string::npos; at = all.find(text, at + 1)) ++count;
    return count;
}

}  // namespace rux::test
