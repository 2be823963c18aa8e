#pragma once

/// The process's heap. Linking it replaces malloc by jemalloc, configured for a daemon with few threads on a small
/// machine. Sanitizer builds keep their own heap; GiveBack() does nothing there. Safe from any thread.
namespace Heap
{

/// Flushes this thread's jemalloc cache and purges all arenas. jemalloc decays only while it is called, so an idle
/// daemon would keep the pages of a burst. Measured: 2 µs if there is nothing to purge, 1 ms for 20 MiB.
void GiveBack();

} // namespace Heap
