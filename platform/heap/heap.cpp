// The service's allocator on a host, which stands in for the device's own.
//
// The images of a large space are some ten million small pieces, all touched once, in order. With
// memory that comes in small pages every few of them cost a page fault, which took up to a third of
// a first scan's processor time, most of all in virtual machines.

#include <jemalloc/jemalloc.h>
#include <sys/prctl.h>

#include "tavo_f2fs_io_extensions.h"

/// Read by jemalloc(3) when the program starts. One arena, because one thread does nearly all of
/// it. What large pieces have left is given out in pieces of any size, before new memory is. Small
/// pieces are taken from 16 pages at a time, not from 3: the allocator never gives its record of
/// such a set back. What has not been used for a second goes back to the system.
extern "C" {
extern const char* malloc_conf;
const char* malloc_conf =
        "thp:always,narenas:1,lg_extent_max_active_fit:20,slab_sizes:16-128:16,"
        "dirty_decay_ms:1000,background_thread:true";
}

/// While freed memory is kept, the allocator's own thread rests: it would be woken for nothing, a
/// thousand times in a scan. Otherwise the kernel makes no large pages (prctl(2)): of what has been
/// given back in part it would make whole ones again.
void keepFreedMemory(bool keep) {
    ssize_t decay = keep ? -1 : 1000;  // milliseconds; never
    bool thread = !keep;
    mallctl("arena.0.dirty_decay_ms", nullptr, nullptr, &decay, sizeof(decay));
    mallctl("background_thread", nullptr, nullptr, &thread, sizeof(thread));
    prctl(PR_SET_THP_DISABLE, keep ? 0 : 1, 0, 0, 0);
    if (keep) return;
    mallctl("thread.tcache.flush", nullptr, nullptr, nullptr, 0);
    mallctl("arena.0.purge", nullptr, nullptr, nullptr, 0);
}
