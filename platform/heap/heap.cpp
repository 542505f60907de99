// The service's allocator on a host, which stands in for the device's own.
//
// The images of a large space are some ten million small pieces, all touched once, in order. With
// memory that comes in small pages every few of them cost a page fault, which took up to a third of
// a first scan's processor time, most of all in virtual machines.

/// Read by jemalloc(3) when the program starts. One arena, because one thread does nearly all of
/// it. What is not used any more goes back to the system, but over ten minutes: a scan drops the
/// images of one space and fills the memory with those of the next, and memory that went back in
/// between would come again in small pages only.
extern "C" {
extern const char* malloc_conf;
const char* malloc_conf = "thp:always,narenas:1,dirty_decay_ms:600000,background_thread:true";
}
