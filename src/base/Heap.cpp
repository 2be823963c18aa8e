#include "base/Heap.h"

#ifdef SONARIX_JEMALLOC

#include <jemalloc/jemalloc.h>

#define SONARIX_TEXT_OF(macro) SONARIX_TEXT(macro)
#define SONARIX_TEXT(word) #word

/// Read by jemalloc before main(). One arena: its locks are per size class, and few threads allocate at once. Blocks of
/// 128 KiB and more, for example the JSON of hundreds of products, are returned to the kernel at once, other free pages
/// after 100 ms. Slabs of one page and small thread caches: the few blocks that survive a burst then keep few pages. No
/// background thread, because it would wake an idle daemon.
// NOLINTNEXTLINE(readability-identifier-naming,misc-use-internal-linkage)
const char* malloc_conf =
    "narenas:1,oversize_threshold:131072,dirty_decay_ms:100,muzzy_decay_ms:0,slab_sizes:1-768:1,"
    "tcache_max:1024,lg_tcache_nslots_mul:-1,tcache_nslots_small_min:4,tcache_nslots_small_max:16";

void Heap::GiveBack()
{
    mallctl("thread.tcache.flush", nullptr, nullptr, nullptr, 0);
    mallctl("arena." SONARIX_TEXT_OF(MALLCTL_ARENAS_ALL) ".purge", nullptr, nullptr, nullptr, 0);
}

#else

void Heap::GiveBack() {}

#endif
