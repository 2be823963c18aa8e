#pragma once

#include <cstddef>
#include <memory>

namespace Threads_Http
{

/// A piece of work for a thread of its own, and what its requester may ask of it meanwhile, from any thread.
class IRunnable
{
public:
    virtual ~IRunnable() = default;
    virtual void Run() = 0;
    virtual void Cancel() = 0;
    virtual bool WasRateLimited() const = 0;
    virtual int GetAttemptCount() const = 0;
};

/// Runs `runnable` on a new thread "Async Task", with no queue and no limit; from 20 at once on each start logs a
/// warning. Thread: any. The thread holds the runnable until Run() has returned, and nobody joins it.
/// Throws std::system_error where there is no thread to be had; the runnable is let go then.
void StartAsyncTask(const std::shared_ptr<IRunnable>& runnable);

/// How many have been started and have not ended yet, in the whole process.
std::size_t CountAsyncTasks();

} // namespace Threads_Http
