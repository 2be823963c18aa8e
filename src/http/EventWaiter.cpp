#include "http/EventWaiter.h"

#include "runtime/DPrint.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdint>
#include <cstring>

#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

namespace
{

const DPrint s_log("EventWaiter");

} // namespace

EventWaiter::Result EventWaiter::Wait(unsigned seconds)
{
    pollfd polled{};
    polled.events = POLLIN;
    {
        const std::lock_guard lock(m_mutex);
        if (m_woken)
        {
            DPRINT(s_log, DPrint::LEVEL_VERBOSE, "Wake was called before entering poll");
            return WOKEN;
        }
        polled.fd = eventfd(0, EFD_CLOEXEC);
        if (polled.fd == -1)
        {
            DPRINT(s_log, DPrint::LEVEL_CRITICAL, "Failed to create a valid eventfd");
            return FAILED;
        }
        m_descriptor = polled.fd;
        m_waiting = true;
    }
    const int milliseconds = static_cast<int>(std::min(seconds, static_cast<unsigned>(INT_MAX) / 1000)) * 1000;
    const int count = poll(&polled, 1, milliseconds);
    const int error = errno;
    {
        const std::lock_guard lock(m_mutex);
        m_waiting = false;
        m_descriptor = -1;
    }
    close(polled.fd);
    if (count < 0)
    {
        DPRINT(s_log, DPrint::LEVEL_CRITICAL, "Poll returned a error:" << std::strerror(error));
        return FAILED;
    }
    if (count == 0)
    {
        DPRINT(s_log, DPrint::LEVEL_VERBOSE, "Timeout reached");
        return TIMED_OUT;
    }
    if (polled.revents == 0)
    {
        return FAILED;
    }
    DPRINT(s_log, DPrint::LEVEL_VERBOSE, "Wake was called before timeout was reached");
    return WOKEN;
}

void EventWaiter::Wake()
{
    DPRINT(s_log, DPrint::LEVEL_VERBOSE, "Wake was called");
    const std::lock_guard lock(m_mutex);
    m_woken = true;
    if (!m_waiting)
    {
        DPRINT(s_log, DPrint::LEVEL_VERBOSE, "Wait not called yet and eventfd not created so write is not needed");
        return;
    }
    if (m_descriptor == -1)
    {
        DPRINT(s_log, DPrint::LEVEL_ERROR, "Invalid file descriptor provided");
        return;
    }
    const std::uint64_t one = 1;
    if (write(m_descriptor, &one, sizeof(one)) != static_cast<ssize_t>(sizeof(one)))
    {
        DPRINT(s_log, DPrint::LEVEL_CRITICAL, "Failed to write to file descriptor, " << std::strerror(errno));
    }
    m_descriptor = -1;
}

void EventWaiter::Reset()
{
    const std::lock_guard lock(m_mutex);
    m_woken = false;
}
