/// The service's log lines.
///
/// Every line names the function and the source line that write it: "FUNCTION:LINE: [RUX-NATIVE]
/// ...". The name is part of what readers of the log rely on, so a line is written in the function
/// that it is about, not in a helper: a helper returns what there is to say.
#pragma once

#include "android/log.h"

/// One line at priority `prio`; `place`, a literal, goes into the bracket behind RUX-NATIVE.
#define RUX_LOG(prio, place, format, ...)                                                \
    __android_log_print(prio, nullptr, "%s:%d: [RUX-NATIVE" place "] " format, __func__, \
                        __LINE__ __VA_OPT__(, ) __VA_ARGS__)

#define RUX_LOGD(format, ...) RUX_LOG(ANDROID_LOG_DEBUG, "", format __VA_OPT__(, ) __VA_ARGS__)
#define RUX_LOGE(format, ...) RUX_LOG(ANDROID_LOG_ERROR, "", format __VA_OPT__(, ) __VA_ARGS__)
