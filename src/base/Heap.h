#pragma once

/// What the process does with memory that it has freed. Linking it brings jemalloc in, set up for a daemon of few
/// threads on a small machine; the sanitizers' builds keep their own heap, and there nothing happens here. Any thread.
namespace Heap
{

/// Gives all free pages back to the kernel, and before that what the calling thread keeps for itself to the heap. By
/// itself the heap does so while it is used, a tenth of a second after they were freed: what a burst leaves behind
/// would stay for as long as the process is idle. Takes 2 µs where there is nothing to give back, and a millisecond
/// for 20 MiB.
void GiveBack();

} // namespace Heap
