/// Programs that are interrupted between two steps of an open(2).
#pragma once

#include <chrono>

namespace android::host {

/// A program that opens a file looks its name up first and meets a lease a microsecond later. One
/// that is interrupted in between comes back with the file that the name led to before. Returns
/// when nobody who was interrupted `elapsed` ago can still be without a processor: at once where
/// there are processors to spare, else after 50 milliseconds, or more on a machine with very many
/// runnable tasks.
void waitForInterruptedTasks(std::chrono::nanoseconds elapsed);

}  // namespace android::host
