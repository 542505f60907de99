/// The platform's fuzzer of binder services, as far as a compiler must know it.
#pragma once

#include <fuzzer/FuzzedDataProvider.h>

#include "binder/IBinder.h"

namespace android {

/// Sends transactions to `binder` until `provider` is used up.
void fuzzService(const sp<IBinder>& binder, FuzzedDataProvider&& provider);

}  // namespace android
