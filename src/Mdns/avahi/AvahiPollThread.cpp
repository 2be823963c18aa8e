#include "Mdns/avahi/AvahiPollThread.h"

#include <avahi-common/thread-watch.h>

#include <cstdio>
#include <cstdlib>

namespace MDNS
{

void AvahiPollThread::InCallback()
{
    if (!IsHolder())
    {
        if (m_pollThread.load() == std::thread::id())
        {
            m_pollThread = std::this_thread::get_id();
        }
        CheckLocked("an Avahi callback");
    }
}

#ifndef NDEBUG
void AvahiPollThread::CheckLocked(const char* function) const
{
    if (!IsCurrent() && !IsHolder())
    {
        std::fprintf(stderr, "%s needs the lock of its Avahi poll and runs without it\n", function);
        std::abort();
    }
}
#endif

AvahiPollThread::Lock::Lock(AvahiPollThread& thread, AvahiThreadedPoll* poll)
    : m_thread(thread)
    , m_poll(thread.IsCurrent() || thread.IsHolder() ? nullptr : poll)
{
    if (m_poll != nullptr)
    {
        avahi_threaded_poll_lock(m_poll);
        m_thread.m_holder = std::this_thread::get_id();
    }
}

AvahiPollThread::Lock::~Lock()
{
    if (m_poll != nullptr)
    {
        m_thread.m_holder = std::thread::id();
        avahi_threaded_poll_unlock(m_poll);
    }
}

} // namespace MDNS
