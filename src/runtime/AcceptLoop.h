#pragma once

#include <functional>
#include <memory>
#include <string>

class NotifyTargetTaskIF;

namespace IL
{

/// Accepts the connections of one listening stream socket, one per turn of the task, so that a flood of connections
/// does not keep the task from its other entries. When descriptors or memory run out (EMFILE, ENFILE, ENOBUFS,
/// ENOMEM), it tries again every 250 ms and logs one level-2 line per minute, "NAME: accepting pauses: REASON".
/// A peer that has gone before it was accepted is skipped.
/// Task: `accepted` runs on `task`; the other operations are safe from any thread, one at a time. Throws
/// std::logic_error for a task of the simulated engine, which has no sockets.
/// Destruction closes the listening socket. On the task, no callback comes after it; elsewhere the socket is closed
/// by an entry that it posts, and a callback may come until that entry runs.
class AcceptLoop final
{
public:
    /// Gets a non-blocking, close-on-exec descriptor that it owns. May destroy the AcceptLoop.
    using Accepted = std::function<void(int descriptor)>;

    /// `channel` is the log channel, `name` the beginning of the log line.
    AcceptLoop(NotifyTargetTaskIF* task, const std::string& channel, const std::string& name, Accepted accepted);
    ~AcceptLoop();
    AcceptLoop(const AcceptLoop&) = delete;
    AcceptLoop& operator=(const AcceptLoop&) = delete;

    /// To be called once. Takes the ownership of the listening, non-blocking socket `descriptor`, and closes it on
    /// failure. Returns the reason if the kernel cannot watch the socket, otherwise an empty string.
    [[nodiscard]] std::string Start(int descriptor);

    /// To be called inside `accepted`, once: leaves further connections in the kernel's queue until Resume(). For an
    /// owner whose table is full.
    void Suspend();
    /// To be called on the task, after the call of `accepted` that called Suspend(). Has no effect unless suspended.
    void Resume();

private:
    class Impl;
    const std::shared_ptr<Impl> m_impl;
};

} // namespace IL
