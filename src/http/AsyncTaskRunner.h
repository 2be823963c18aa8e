#pragma once

#include <cstddef>
#include <memory>

namespace Threads_Http
{

/// Work for a thread of its own. All operations but Run() are safe from any thread.
class IRunnable
{
public:
    virtual ~IRunnable() = default;
    virtual void Run() = 0;
    virtual void Cancel() = 0;
    virtual bool WasRateLimited() const = 0;
    virtual int GetAttemptCount() const = 0;
};

/// Runs `runnable` on a new detached thread "Async Task", which holds it until Run() has returned. Safe from any
/// thread. There is no queue and no limit; each start logs a warning while 20 or more run. Throws std::system_error if
/// the thread cannot be created; the runnable is released then.
void StartAsyncTask(const std::shared_ptr<IRunnable>& runnable);

/// Threads of this process that StartAsyncTask() has started and that have not ended.
std::size_t CountAsyncTasks();

} // namespace Threads_Http
