/// Which partitions of a device may talk to a binder object.
#pragma once

namespace android {

class IBinder;

namespace internal {

class Stability final {
  public:
    /// Gives `binder` the stability of the code that calls. A host has one partition: nothing to
    /// mark, nothing to refuse.
    static void markCompilationUnit(IBinder* /*binder*/) {}
};

}  // namespace internal
}  // namespace android
