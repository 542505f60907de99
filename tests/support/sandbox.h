/// A directory for one test, which is removed with the object.
#pragma once

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <system_error>

namespace rux::test {

class Sandbox {
  public:
    Sandbox() {
        if (mkdtemp(mBase.data()) == nullptr) abort();
    }
    ~Sandbox() {
        std::error_code ignored;
        std::filesystem::remove_all(mBase, ignored);
    }
    Sandbox(const Sandbox&) = delete;
    Sandbox& operator=(const Sandbox&) = delete;

    std::string path(const std::string& name) const { return mBase + "/" + name; }
    /// Writes a file, or another content to one that is there; returns its path.
    std::string write(const std::string& name, const std::string& content) const {
        std::ofstream file(path(name), std::ios::binary | std::ios::trunc);
        file << content;
        file.close();
        EXPECT_TRUE(file) << name;
        return path(name);
    }

  private:
    std::string mBase = std::filesystem::temp_directory_path() / "rux-test-XXXXXX";
};

inline struct stat statusOf(const std::string& path) {
    struct stat st = {};
    EXPECT_EQ(stat(path.c_str(), &st), 0) << path;
    return st;
}

}  // namespace rux::test
