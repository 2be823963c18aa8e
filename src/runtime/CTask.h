#pragma once

#include <memory>
#include <string>

/// A task with a body of its own on a thread of its own, which ends with the body; for work that blocks.
/// Owner: a std::shared_ptr. The thread holds one too until the body has ended, so that an owner may let go at any
/// time; nobody joins the thread.
///
/// Its thread takes no signals but those that its own faults raise: a signal sent to the process interrupts none of
/// the body's system calls, and a crash in it still reaches the process's handler.
class CTask : public std::enable_shared_from_this<CTask>
{
public:
    enum RealtimeType
    {
        NOT_REALTIME, ///< the process's own scheduling
    };

    /// `name` is cut off after 15 bytes where the kernel shows it. The others are reserved: false, NOT_REALTIME, -1.
    CTask(const char* name, bool reserved, RealtimeType type, int priority);
    virtual ~CTask() = default;
    CTask(const CTask&) = delete;
    CTask& operator=(const CTask&) = delete;

    /// Once. Throws std::system_error where there is no thread to be had; the body does not run then.
    void Start();

private:
    /// On the task's thread. An exception out of it is logged at level 1.
    virtual void Body() = 0;

    static void* ThreadMain(void* self);

    const std::string m_name;
};
