#include "dup/except_rules.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <mutex>

#include "android-base/file.h"
#include "android-base/unique_fd.h"
#include "control/log.h"
#include "db/database_root.h"
#include "db/json_text.h"
#include "db/space.h"

namespace rux {
namespace {

bool isListOfStrings(const Json::Value& rules) {
    return rules.isArray() && !rules.empty() &&
           std::all_of(rules.begin(), rules.end(),
                       [](const Json::Value& rule) { return rule.isString(); });
}

}  // namespace

void Rux_setRUXExceptRulesImp(const std::string& rules) {
    Json::Value value;
    if (!parseJson(rules, value)) {
        RUX_LOGE("Rux_setRUXExceptRulesImp analysis fail");
        return;
    }
    if (!isListOfStrings(value)) {
        RUX_LOGD("Rux_setRUXExceptRulesImp is empty");
        return;
    }
    static std::mutex writing;  // no busy flag keeps two setters apart
    const std::lock_guard lock(writing);
    const std::string path = exceptRulesPath();
    const std::string unfinished = databaseRoot() + ".RUXExceptRules.json.new";
    const android::base::unique_fd file(
            open(unfinished.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0666));
    if (!file.ok()) {
        RUX_LOGE("the exceptPath open fail");
        return;
    }
    const std::string text = value.toStyledString();
    if (!android::base::WriteFully(file.get(), text.data(), text.size()) ||
        fsync(file.get()) != 0) {
        RUX_LOGE("the exceptPath write fail");
    } else if (rename(unfinished.c_str(), path.c_str()) == 0) {
        return;
    } else {  // a directory is in the way
        RUX_LOGE("the exceptPath open fail");
    }
    unlink(unfinished.c_str());
}

}  // namespace rux
