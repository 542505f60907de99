/// A directory for one test, and what tests do with files.
#pragma once

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <functional>
#include <string>

namespace rux::test {

/// What a program that has ended left.
struct Outcome {
    int exit = -1;  // its exit status; 128 and the signal when one ended it
    std::string out;
};
/// Runs a shell's command to its end.
Outcome run(const std::string& command);

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

}  // namespace rux::test
