/// Two equal files, and the I/O library's calls on them.
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <filesystem>
#include <map>

#include "tavo_f2fs_io.h"
#include "tests/support/sandbox.h"

std::map<std::string, int32_t> settleLinks();

namespace rux::test {

namespace fs = std::filesystem;

/// The names in a directory, sorted.
inline std::vector<std::string> namesIn(const std::string& directory) {
    std::vector<std::string> names;
    for (const auto& entry : fs::directory_iterator(directory))
        names.push_back(entry.path().filename());
    std::sort(names.begin(), names.end());
    return names;
}

class FileIoTest : public testing::Test {
  protected:
    static int32_t link(const std::string& kept, const std::string& duplicate) {
        return settled(createHardLink(kept.c_str(), duplicate.c_str(), false), duplicate);
    }
    static int32_t restore(const std::string& path) {
        return settled(restoreLinkFile(path.c_str(), false), path);
    }
    /// What has become of a call that said `code`.
    static int32_t settled(int32_t code, const std::string& path) {
        const auto undone = settleLinks();
        return code == 0 && undone.contains(path) ? undone.at(path) : code;
    }
    void SetUp() override {
        kept = sandbox.write("kept", std::string(300000, 'k'));
        duplicate = sandbox.write("duplicate", std::string(300000, 'k'));
    }
    /// Links the two and expects that it is refused, with nothing changed and nothing left behind.
    void expectRefusal(int code) const {
        const std::vector<std::string> names = namesIn(sandbox.tree());
        const ino_t inode = inodeOf(duplicate);
        EXPECT_EQ(link(kept, duplicate), code) << strerror(code);
        EXPECT_EQ(inodeOf(duplicate), inode);
        EXPECT_EQ(namesIn(sandbox.tree()), names);
    }

    Sandbox sandbox;
    std::string kept;
    std::string duplicate;
};

}  // namespace rux::test
