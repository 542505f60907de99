#include "android-base/properties.h"

#include "properties/store.h"
#include "root/run_dir.h"

namespace android::base {
namespace {

host::PropertyStore& store() {
    // Never destroyed: threads may still poll while the process ends.
    static auto* const instance = new host::PropertyStore(host::runDirectory());
    return *instance;
}

}  // namespace

std::string GetProperty(const std::string& key, const std::string& default_value) {
    return store().get(key, default_value);
}

bool SetProperty(const std::string& key, const std::string& value) {
    return store().set(key, value);
}

}  // namespace android::base
