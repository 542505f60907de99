#include "service/RuxNativeService.h"

#include <exception>

#include "compress/compress_request.h"
#include "compress/restore_request.h"
#include "control/busy.h"
#include "control/log.h"
#include "dup/except_rules.h"
#include "dup/listing_request.h"
#include "scan/scan_request.h"

namespace android {
namespace {

/// A running scan or compression is stopped by its property; these two only leave a trace of who
/// asked when.
void Rux_forceStopScanDuplicateFilesImp() {
    if (rux::isBusy(rux::Operation::Scan)) RUX_LOGD("RUX native service is active, stop");
}

void Rux_stopCompressDuplicateFilesImp() {
    if (rux::isBusy(rux::Operation::Compression)) RUX_LOGD("RUX native service is active, stop");
}

/// Carries out `operation`. Whatever it throws ends here, and `refusal` is the answer.
template <typename Result, typename Operation>
Result guarded(const char* name, Result refusal, const Operation& operation) {
    try {
        return operation();
    } catch (const std::exception& error) {
        RUX_LOGE("%s failed: %s", name, error.what());
    } catch (...) {
        RUX_LOGE("%s failed", name);
    }
    return refusal;
}

/// The same for an operation without a result.
template <typename Operation>
void guarded(const char* name, const Operation& operation) {
    guarded(name, false, [&operation] {
        operation();
        return true;
    });
}

}  // namespace

binder::Status RuxNativeService::Rux_scanDuplicateFiles(const std::string& request) {
    guarded("scan", [&] { rux::Rux_scanDuplicateFilesImp(request); });
    return binder::Status::ok();
}

binder::Status RuxNativeService::Rux_getDuplicateFiles(const std::string& request,
                                                       std::string* result) {
    *result = guarded("listing", std::string("{}"),
                      [&] { return rux::Rux_getDuplicateFilesImp(request); });
    return binder::Status::ok();
}

binder::Status RuxNativeService::Rux_compressDuplicateFiles(const std::string& request,
                                                            std::string* result) {
    *result = guarded("compression", std::string("0,0"),
                      [&] { return rux::Rux_compressDuplicateFilesImp(request); });
    return binder::Status::ok();
}

binder::Status RuxNativeService::Rux_restoreDuplicateFiles(const std::string& request,
                                                           int64_t* result) {
    *result = guarded("restore", int64_t{0},
                      [&] { return rux::Rux_restoreDuplicateFilesImp(request); });
    return binder::Status::ok();
}

binder::Status RuxNativeService::Rux_forceStopScanDuplicateFiles() {
    Rux_forceStopScanDuplicateFilesImp();
    return binder::Status::ok();
}

binder::Status RuxNativeService::Rux_setRUXExceptRules(const std::string& rules) {
    guarded("exception rules", [&] { rux::Rux_setRUXExceptRulesImp(rules); });
    return binder::Status::ok();
}

binder::Status RuxNativeService::Rux_stopCompressDuplicateFiles() {
    Rux_stopCompressDuplicateFilesImp();
    return binder::Status::ok();
}

}  // namespace android
