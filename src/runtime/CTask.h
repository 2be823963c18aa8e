#pragma once

#include <memory>
#include <string>

/// Base class of a task without a queue: its body runs on its own thread, which ends with the body. For work that
/// blocks. Owner: a std::shared_ptr. The thread holds another one until the body has returned, so the owner may drop
/// the task at any time. The thread is detached; it cannot be joined.
class CTask : public std::enable_shared_from_this<CTask>
{
public:
    enum RealtimeType
    {
        NOT_REALTIME, ///< the default scheduling
    };

    /// `name` is for the log and, shortened to 15 bytes, for the kernel. The other parameters are reserved: false,
    /// NOT_REALTIME, -1.
    CTask(const char* name, bool reserved, RealtimeType type, int priority);
    virtual ~CTask() = default;
    CTask(const CTask&) = delete;
    CTask& operator=(const CTask&) = delete;

    /// To be called once. Throws std::system_error if the thread cannot be created; Body() does not run then.
    void Start();

private:
    /// The work of the task. Runs on the task's thread. An exception out of Body() is logged at level 1.
    virtual void Body() = 0;

    static void* ThreadMain(void* self);

    const std::string m_name;
};
