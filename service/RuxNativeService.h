/// The service object.
#pragma once

#include "service/BnRux.h"

namespace android {

/// Forwards each method to the operation that carries it out, on the thread that received the
/// transaction, and answers with success.
class RuxNativeService : public tavo::rux::BnRux {
  public:
    binder::Status Rux_scanDuplicateFiles(const std::string& request) override;
    binder::Status Rux_getDuplicateFiles(const std::string& request, std::string* result) override;
    binder::Status Rux_compressDuplicateFiles(const std::string& request,
                                              std::string* result) override;
    binder::Status Rux_restoreDuplicateFiles(const std::string& request, int64_t* result) override;
    binder::Status Rux_forceStopScanDuplicateFiles() override;
    binder::Status Rux_setRUXExceptRules(const std::string& rules) override;
    binder::Status Rux_stopCompressDuplicateFiles() override;
};

}  // namespace android
