#pragma once

class NotifyTargetTaskIF;

/// First line of each function that must run on `task` only: posted actions, handlers, callbacks, destructors. On
/// another task or thread it ends the process with one line that names both. Builds with NDEBUG contain nothing of it.
///
/// Accepted: the task itself; any thread after the task has ended, so that owners may be destroyed after JoinTask; a
/// null task; under the simulated engine also code outside all tasks, which stands for the main thread.
#ifdef NDEBUG
#define TASK_CHECK(task) static_cast<void>(0)
#else
#define TASK_CHECK(task) IL::CheckTask((task), __PRETTY_FUNCTION__)

namespace IL
{

/// Calls abort() unless the calling thread may access the data of `task`. `function` is printed.
void CheckTask(const NotifyTargetTaskIF* task, const char* function);

} // namespace IL
#endif
