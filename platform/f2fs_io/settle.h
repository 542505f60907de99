/// Letting programs that were interrupted at the wrong moment go on.
#pragma once

namespace android::host {

/// Returns when no runnable task is without a processor, or after 10 milliseconds.
///
/// A program that opens a file looks its name up first and meets the lease a microsecond later. One
/// that was interrupted in between would come back with a file whose name has gone to another,
/// unseen by whoever checks the lease before it is given a processor again. On a machine with
/// processors to spare this returns at once.
void letInterruptedTasksRun();

}  // namespace android::host
