// Database files of any content under each operation.
// Input: one byte that picks the operation, then the four files, separated by 0xff bytes.

#include <string>

#include "compress/compress_request.h"
#include "compress/restore_request.h"
#include "control/busy.h"
#include "dup/listing_request.h"
#include "fuzz/sandbox.h"
#include "scan/scan_request.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const auto& sandbox = rux::fuzz::Sandbox::self();
    if (size == 0) return 0;
    std::string rest(reinterpret_cast<const char*>(data) + 1, size - 1);
    for (const char* name : {"/RUXFileInfo.json", "/RUXCheckNoCompress.json",
                             "/RUXCheckACompress.json", "/RUXModifyFileInfo.json"}) {
        const size_t end = std::min(rest.find('\xff'), rest.size());
        rux::fuzz::Sandbox::write(sandbox.space() + name, rest.substr(0, end));
        rest.erase(0, end + 1);
    }
    const std::string rule = R"([{"sid":"s","regs":[".*"],"dirs":["."]}])";
    switch (data[0] % 4) {
        case 0:
            rux::Rux_scanDuplicateFilesImp(rule);
            break;
        case 1:
            rux::Rux_getDuplicateFilesImp(rule);
            break;
        case 2:
            rux::Rux_compressDuplicateFilesImp("[\"s\"]");
            break;
        case 3:
            if (rux::Rux_restoreDuplicateFilesImp(R"([{"sid":"s","regs":[".*"]}])") < 0) abort();
            break;
    }
    if (rux::isAnyBusy()) abort();
    sandbox.checkFiles();
    return 0;
}
