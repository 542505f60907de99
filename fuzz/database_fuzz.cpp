// Database files of any content under each operation.
// Input: one byte that picks the operation, then the four files and the journal of a save,
// separated by 0xff bytes.

#include <string>

#include "fuzz/sandbox.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const auto& sandbox = rux::fuzz::Sandbox::self();
    if (size == 0) return 0;
    std::string rest(reinterpret_cast<const char*>(data) + 1, size - 1);
    for (const char* name :
         {"/RUXFileInfo.json", "/RUXCheckNoCompress.json", "/RUXCheckACompress.json",
          "/RUXModifyFileInfo.json", "/RUXSave.journal"}) {
        const size_t end = std::min(rest.find('\xff'), rest.size());
        rux::fuzz::Sandbox::write(sandbox.space() + name, rest.substr(0, end));
        rest.erase(0, end + 1);
    }
    const char* const requests[] = {
            R"([{"sid":"s","regs":[".*"],"dirs":["."]}])",
            R"([{"sid":"s","regs":[".*"],"dirs":["."]}])",
            R"(["s"])",
            R"([{"sid":"s","regs":[".*"]}])",
    };
    rux::fuzz::perform(data[0] % 4, requests[data[0] % 4]);
    sandbox.checkFiles();
    return 0;
}
