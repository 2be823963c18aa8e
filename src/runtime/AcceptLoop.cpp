#include "runtime/AcceptLoop.h"

#include "runtime/DPrint.h"
#include "runtime/Task.h"
#include "runtime/TaskCheck.h"
#include "runtime/TaskIo.h"

#include <boost/asio/io_context.hpp>
#include <boost/asio/posix/stream_descriptor.hpp>
#include <boost/asio/steady_timer.hpp>

#include <cerrno>
#include <chrono>
#include <optional>
#include <sys/socket.h>
#include <system_error>
#include <unistd.h>
#include <utility>

namespace IL
{

namespace
{

namespace asio = boost::asio;
using ErrorCode = boost::system::error_code;
using Clock = std::chrono::steady_clock;

constexpr std::chrono::milliseconds kPause{250};
constexpr std::chrono::minutes kLinePeriod{1};

} // namespace

/// The part of AcceptLoop that its callbacks use. The pending wait on the socket holds it until Close().
class AcceptLoop::Impl final : public std::enable_shared_from_this<Impl>
{
public:
    Impl(NotifyTargetTaskIF* task, const std::string& channel, const std::string& name, Accepted accepted)
        : m_task(task)
        , m_log(channel)
        , m_name(name)
        , m_socket(IoContextOf(task))
        , m_timer(IoContextOf(task))
        , m_accepted(std::move(accepted))
    {
    }

    ErrorCode Assign(int descriptor)
    {
        ErrorCode error;
        m_socket.assign(descriptor, error);
        return error;
    }

    /// Runs `step` now if the caller is on the task, otherwise as an entry of the task.
    void OnTask(void (Impl::*step)())
    {
        if (m_task->IsCurrent())
        {
            (this->*step)();
        }
        else
        {
            BreakThread([self = shared_from_this(), step] { ((*self).*step)(); }, m_task);
        }
    }

    void Wait()
    {
        TASK_CHECK(m_task);
        if (m_isSuspended || !m_socket.is_open())
        {
            return;
        }
        m_socket.async_wait(asio::posix::descriptor_base::wait_read,
                            [self = shared_from_this()](const ErrorCode& error)
                            {
                                if (!error && self->m_socket.is_open())
                                {
                                    self->AcceptOne();
                                }
                            });
    }

    void Close()
    {
        ErrorCode ignored;
        m_socket.close(ignored);
        m_timer.cancel();
    }

    void SetSuspended(bool isSuspended)
    {
        TASK_CHECK(m_task);
        if (std::exchange(m_isSuspended, isSuspended) && !isSuspended)
        {
            Wait();
        }
    }

private:
    void AcceptOne()
    {
        TASK_CHECK(m_task);
        const int accepted = ::accept4(m_socket.native_handle(), nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK);
        if (accepted >= 0)
        {
            try
            {
                m_accepted(accepted);
            }
            catch (...) // the task logs it
            {
                Wait();
                throw;
            }
        }
        else if (errno != EAGAIN && errno != EINTR && errno != ECONNABORTED)
        {
            Pause(errno);
            return;
        }
        Wait();
    }

    void Pause(int error)
    {
        const Clock::time_point now = Clock::now();
        if (!m_loggedAt || now - *m_loggedAt > kLinePeriod)
        {
            m_loggedAt = now;
            DPRINTF(m_log, DPrint::LEVEL_WARNING, "%s: accepting pauses: %s", m_name.c_str(),
                    std::generic_category().message(error).c_str());
        }
        m_timer.expires_after(kPause);
        m_timer.async_wait(
            [self = shared_from_this()](const ErrorCode& cancelled)
            {
                if (!cancelled)
                {
                    self->Wait();
                }
            });
    }

    NotifyTargetTaskIF* const m_task;
    const DPrint m_log;
    const std::string m_name;
    asio::posix::stream_descriptor m_socket; ///< never read: only waited for
    asio::steady_timer m_timer;
    const Accepted m_accepted;
    bool m_isSuspended = false;
    std::optional<Clock::time_point> m_loggedAt;
};

AcceptLoop::AcceptLoop(NotifyTargetTaskIF* task, const std::string& channel, const std::string& name, Accepted accepted)
    : m_impl(std::make_shared<Impl>(task, channel, name, std::move(accepted)))
{
}

AcceptLoop::~AcceptLoop()
{
    m_impl->OnTask(&Impl::Close);
}

std::string AcceptLoop::Start(int descriptor)
{
    if (const ErrorCode error = m_impl->Assign(descriptor))
    {
        ::close(descriptor);
        return error.message();
    }
    m_impl->OnTask(&Impl::Wait);
    return {};
}

void AcceptLoop::Suspend()
{
    m_impl->SetSuspended(true);
}

void AcceptLoop::Resume()
{
    m_impl->SetSuspended(false);
}

} // namespace IL
