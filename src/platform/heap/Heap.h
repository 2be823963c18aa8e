#pragma once

/// What the process does with memory that it has freed. Any thread.
namespace Heap
{

/// At the start of the process, before it has a second thread: one arena, and large blocks apart.
void KeepSmall();

/// Gives free pages back to the kernel where there are many. After a burst, what is freed lies between what stays, and
/// would be the process's own for good. Takes 10 µs, and where there is something to give back a millisecond.
void GiveBack();

} // namespace Heap
