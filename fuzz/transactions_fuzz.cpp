// Parcels of every code through the stub, down to the operations.
// Input: one byte of code, then the parcel.

#include "binder/Parcel.h"
#include "fuzz/sandbox.h"
#include "service/RuxNativeService.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const auto& sandbox = rux::fuzz::Sandbox::self();
    static const auto service = android::sp<android::RuxNativeService>::make();
    if (size == 0) return 0;
    android::Parcel request;
    android::Parcel reply;
    request.setData(data + 1, size - 1);
    const android::status_t status = service->transact(data[0], request, &reply);
    // A method that was called has answered with success, and its answer is whole.
    if (status == android::OK) {
        android::binder::Status result;
        if (result.readFromParcel(reply) != android::OK) abort();
    }
    sandbox.checkFiles();
    return 0;
}
