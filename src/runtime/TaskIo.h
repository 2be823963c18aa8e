#pragma once

class NotifyTargetTaskIF;

namespace boost::asio
{
class io_context;
} // namespace boost::asio

namespace IL
{

/// The io_context that serves the task's queue and timers. Handlers of sockets on it run on the task, between entries.
/// These sockets are used on the task only, or after JoinTask. Pending handlers are destroyed on the task's thread when
/// the task stops, without being called. Valid until the process ends.
/// Throws std::logic_error for a task of the simulated engine, which has no sockets.
boost::asio::io_context& IoContextOf(NotifyTargetTaskIF* task);

} // namespace IL
