// Request texts into each operation.
// Input: one byte that picks the operation, then the text.

#include <string>

#include "fuzz/sandbox.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const auto& sandbox = rux::fuzz::Sandbox::self();
    if (size == 0) return 0;
    const std::string text(reinterpret_cast<const char*>(data) + 1, size - 1);
    rux::fuzz::perform(data[0] % 5, text);
    sandbox.checkFiles();
    return 0;
}
