/// Trace sections, visible to the kernel's tracer.
#pragma once

#include <cstdint>

namespace android::binder {

namespace os {

/// Opens the section `name` on this thread. On a host every tag is traced, through the kernel's
/// trace marker; where that cannot be written, nothing happens.
void trace_begin(uint64_t tag, const char* name);
/// Closes the section that this thread opened last.
void trace_end(uint64_t tag);

}  // namespace os

/// A section that lasts as long as the object.
class ScopedTrace {
  public:
    ScopedTrace(uint64_t tag, const char* name) : mTag(tag) { os::trace_begin(mTag, name); }
    ~ScopedTrace() { os::trace_end(mTag); }
    ScopedTrace(const ScopedTrace&) = delete;
    ScopedTrace& operator=(const ScopedTrace&) = delete;

  private:
    uint64_t mTag;
};

}  // namespace android::binder
