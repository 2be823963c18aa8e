#pragma once

class NotifyTargetTaskIF;

/// First line of what must run on `task` only: posted actions, handlers, callbacks, destructors. If another task runs
/// it, the process ends with one line that names both. Builds with NDEBUG contain nothing of it.
///
/// Accepted: the task itself; any thread after the task has ended, so that owners may be destroyed after JoinTask;
/// under the simulated engine also the scripted world outside all tasks, which plays the main thread; a null task,
/// which runs nothing.
#ifdef NDEBUG
#define TASK_CHECK(task) static_cast<void>(0)
#else
#define TASK_CHECK(task) IL::CheckTask((task), __func__)

namespace IL
{

/// Ends the process by abort() unless the calling thread may touch what belongs to `task`. `function` is for the line.
void CheckTask(const NotifyTargetTaskIF* task, const char* function);

} // namespace IL
#endif
