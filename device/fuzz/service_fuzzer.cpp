// Random transactions, driven by the platform's own fuzzer of binder services.

#include <fuzzbinder/libbinder_driver.h>
#include <fuzzer/FuzzedDataProvider.h>

#include "service/RuxNativeService.h"
#include "tavo_f2fs_io.h"

// In place of the I/O library, which would change any file that an input happens to name. Digests
// of one value make every file a duplicate, so that all operations have something to do.

FileMD5Result computeFileMD5(const char* /*path*/, bool /*enableLog*/) {
    return {0, "00000000000000000000000000000000"};
}

int32_t createHardLink(const char* keptPath, const char* duplicatePath, bool /*enableLog*/) {
    return static_cast<unsigned char>(keptPath[0] + duplicatePath[0]) % 2;
}

int32_t restoreLinkFile(const char* path, bool /*enableLog*/) {
    return static_cast<unsigned char>(path[0]) % 2;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static const auto service = android::sp<android::RuxNativeService>::make();
    android::fuzzService(service, FuzzedDataProvider(data, size));
    return 0;
}
