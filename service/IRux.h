/// The interface through which clients reach the service.
#pragma once

#include <cstdint>
#include <string>

#include "binder/IInterface.h"
#include "binder/Status.h"

namespace tavo::rux {

/// Every method answers with a success status; what came of it is in the result, in the space's
/// database files or in the log.
class IRux : public android::IInterface {
  public:
    /// The transactions, in the order of the methods below.
    enum : uint32_t {
        TRANSACTION_scanDuplicateFiles = android::IBinder::FIRST_CALL_TRANSACTION,
        TRANSACTION_getDuplicateFiles,
        TRANSACTION_compressDuplicateFiles,
        TRANSACTION_restoreDuplicateFiles,
        TRANSACTION_forceStopScanDuplicateFiles,
        TRANSACTION_setRUXExceptRules,
        TRANSACTION_stopCompressDuplicateFiles,
    };

    static const android::String16 descriptor;
    virtual const android::String16& getInterfaceDescriptor() const;

    virtual android::binder::Status Rux_scanDuplicateFiles(const std::string& request) = 0;
    virtual android::binder::Status Rux_getDuplicateFiles(const std::string& request,
                                                          std::string* result) = 0;
    virtual android::binder::Status Rux_compressDuplicateFiles(const std::string& request,
                                                               std::string* result) = 0;
    virtual android::binder::Status Rux_restoreDuplicateFiles(const std::string& request,
                                                              int64_t* result) = 0;
    virtual android::binder::Status Rux_forceStopScanDuplicateFiles() = 0;
    virtual android::binder::Status Rux_setRUXExceptRules(const std::string& rules) = 0;
    virtual android::binder::Status Rux_stopCompressDuplicateFiles() = 0;
};

}  // namespace tavo::rux
