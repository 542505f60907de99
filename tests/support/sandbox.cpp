#include "tests/support/sandbox.h"

#include <sys/wait.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <thread>

namespace rux::test {

namespace fs = std::filesystem;

Outcome run(const std::string& command) {
    FILE* output = popen(command.c_str(), "re");
    if (output == nullptr) return {};
    Outcome outcome;
    for (int c = fgetc(output); c != EOF; c = fgetc(output)) outcome.out += static_cast<char>(c);
    const int status = pclose(output);
    outcome.exit = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    return outcome;
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
    return run("md5sum -z '" + path + "'").out.substr(0, 32);
}

}  // namespace rux::test
