#include "Mdns/avahi/AvahiPollThread.h"

#include <avahi-common/thread-watch.h>

namespace MDNS
{

AvahiPollThread::Lock::Lock(AvahiPollThread& thread, AvahiThreadedPoll* poll)
    : m_thread(thread)
    , m_poll(thread.IsCurrent() || thread.m_holder.load() == std::this_thread::get_id() ? nullptr : poll)
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
