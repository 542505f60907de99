#include "control/properties.h"

#include "android-base/properties.h"

namespace rux {
namespace {

bool isTrue(const std::string& property) {
    return android::base::GetProperty(property, "false") == "true";
}

}  // namespace

std::atomic<bool> toolLogEnabled{false};

bool getStopProp(const std::string& name) {
    return isTrue(name);
}

void isEnableToolLog() {
    if (isTrue(kToolLogSwitch)) toolLogEnabled = true;
}

}  // namespace rux
