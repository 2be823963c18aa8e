#include "Heap.h"

#include <cstddef>
#include <malloc.h>

namespace Heap
{

/// A published list of hundreds of products is a text of hundreds of KiB. Left to itself, the heap learns to keep
/// blocks of that size, in an arena for each thread: after a burst of changes, twice to three times what is in use
/// stays with the process for good. Such blocks are the kernel's own from here on, and go back to it.
void KeepSmall()
{
    constexpr int kLargeBlock = 256 << 10;
    mallopt(M_MMAP_THRESHOLD, kLargeBlock);
    mallopt(M_ARENA_MAX, 1);
}

void GiveBack()
{
    constexpr std::size_t kMuch = std::size_t{512} << 10;
    if (mallinfo2().fordblks > kMuch)
    {
        malloc_trim(0);
    }
}

} // namespace Heap
