/// The library's own log lines.
#pragma once

#include <cstring>

#include "android/log.h"

namespace android::host {

/// Says, when `enabled`, what `function` did for `path`.
inline void logTool(bool enabled, const char* function, const char* path, int code) {
    if (!enabled) return;
    __android_log_print(ANDROID_LOG_DEBUG, "tavo_f2fs_io", "%s %s: %d (%s)", function, path, code,
                        code == 0 ? "ok" : strerrordesc_np(code));
}

}  // namespace android::host
