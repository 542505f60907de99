// Request texts into each operation.
// Input: one byte that picks the operation, then the text.

#include <string>

#include "compress/compress_request.h"
#include "compress/restore_request.h"
#include "control/busy.h"
#include "dup/except_rules.h"
#include "dup/listing_request.h"
#include "fuzz/sandbox.h"
#include "scan/scan_request.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const auto& sandbox = rux::fuzz::Sandbox::self();
    if (size == 0) return 0;
    const std::string text(reinterpret_cast<const char*>(data) + 1, size - 1);
    switch (data[0] % 5) {
        case 0:
            rux::Rux_scanDuplicateFilesImp(text);
            break;
        case 1:
            rux::Rux_getDuplicateFilesImp(text);
            break;
        case 2:
            rux::Rux_compressDuplicateFilesImp(text);
            break;
        case 3:
            rux::Rux_restoreDuplicateFilesImp(text);
            break;
        case 4:
            rux::Rux_setRUXExceptRulesImp(text);
            break;
    }
    if (rux::isAnyBusy()) abort();
    sandbox.checkFiles();
    return 0;
}
