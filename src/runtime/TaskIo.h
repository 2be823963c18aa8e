#pragma once

class NotifyTargetTaskIF;

namespace boost::asio
{
class io_context;
} // namespace boost::asio

namespace IL
{

/// The io_context that serves the task's queue and timers, for the sockets of what lives on the task: their
/// handlers run there, between the entries. Sockets are touched on the task only, or after JoinTask. Handlers
/// that wait when the task stops are destroyed on its thread and not called. Valid until the process ends.
/// Throws std::logic_error for a task of the simulated engine, which has no sockets.
boost::asio::io_context& IoContextOf(NotifyTargetTaskIF* task);

} // namespace IL
