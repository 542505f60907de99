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

#include "compress/compress_request.h"
#include "compress/restore_request.h"
#include "control/busy.h"
#include "dup/except_rules.h"
#include "dup/listing_request.h"
#include "scan/scan_request.h"

namespace rux::fuzz {

/// Has the service carry out one of its operations, and ends the process when that leaves it busy
/// or has restored a negative number of bytes.
inline void perform(unsigned operation, const std::string& request) {
    switch (operation) {
        case 0:
            Rux_scanDuplicateFilesImp(request);
            break;
        case 1:
            Rux_getDuplicateFilesImp(request);
            break;
        case 2:
            Rux_compressDuplicateFilesImp(request);
            break;
        case 3:
            if (Rux_restoreDuplicateFilesImp(request) < 0) abort();
            break;
        default:
            Rux_setRUXExceptRulesImp(request);
    }
    if (isAnyBusy()) abort();
}

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
