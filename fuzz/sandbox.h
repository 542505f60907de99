/// A root and two equal files for the fuzzers that run whole operations.
///
/// What an input asks for is done, anywhere: these fuzzers belong into a file system of their own,
/// as scripts/fuzz.sh gives them one, and refuse to run elsewhere.
#pragma once

#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <string>

namespace rux::fuzz {

/// Made once for the process, before the first operation, and removed at its end.
class Sandbox {
  public:
    static const Sandbox& self() {
        static const Sandbox instance;
        return instance;
    }
    ~Sandbox() { std::filesystem::remove_all(mBase); }

    std::string space() const { return mBase + "/data/local/zel/s"; }
    std::string tree() const { return mBase + "/tree"; }
    static void write(const std::string& path, const std::string& content) {
        std::ofstream(path, std::ios::binary | std::ios::trunc) << content;
    }

    /// The two files have their content, whatever has been done to them. Ends the process if not.
    void checkFiles() const {
        for (const char* name : {"/a", "/b"}) {
            std::ifstream file(tree() + name, std::ios::binary);
            std::string content;
            std::getline(file, content, '\0');
            if (content != kContent) abort();
        }
    }

  private:
    static constexpr char kContent[] = "the same in both files";

    Sandbox() {
        if (access("/this-root-is-for-fuzzing", F_OK) != 0) {
            std::cerr << "run this fuzzer with scripts/fuzz.sh\n";
            _exit(1);
        }
        std::filesystem::create_directories(space());
        std::filesystem::create_directories(tree());
        write(tree() + "/a", kContent);
        write(tree() + "/b", kContent);
        setenv("RUX_ROOT", mBase.c_str(), 1);
        setenv("ANDROID_LOG_TAGS", "*:S", 1);
        // Paths of the seeds are relative, so that they mean these files on every machine.
        if (chdir(tree().c_str()) != 0) abort();
    }

    const std::string mBase = "/sandbox";
};

}  // namespace rux::fuzz
