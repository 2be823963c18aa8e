#include "Mdns/SecondLook.h"
#include "Mdns/avahi/AvahiCallbackAdapter.h"
#include "Mdns/avahi/AvahiConvert.h"
#include "Mdns/avahi/AvahiErrorLine.h"
#include "Mdns/avahi/AvahiImpl.h"
#include "Mdns/avahi/CleanupConnection.h"
#include "runtime/MonotonicClock.h"

#include <avahi-client/client.h>
#include <avahi-client/lookup.h>
#include <avahi-common/thread-watch.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <ctime>
#include <sys/timerfd.h>
#include <unistd.h>
#include <utility>

namespace MDNS
{

namespace
{

const DPrint s_log("mDNS");

} // namespace

/// One browse: a browser of Avahi and, where SecondLook wants it, the one that follows. All under the poll's lock.
/// Holds the instance until the end, and what calls back from Avahi holds this.
class AvahiImpl::Browsing final : public std::enable_shared_from_this<Browsing>
{
public:
    Browsing(std::shared_ptr<AvahiImpl> impl, std::string type, Callback<ServiceId> added, Callback<ServiceId> removed)
        : m_impl(std::move(impl))
        , m_type(std::move(type))
        , m_added(std::move(added))
        , m_removed(std::move(removed))
    {
    }

    bool Start()
    {
        m_look.Begin(MonotonicClock::NowMs());
        return StartBrowser();
    }

    void End()
    {
        m_isEnded = true;
        EndTimer();
        EndBrowser();
    }

private:
    bool StartBrowser()
    {
        auto [browser, connection] = detail::AdapterOf<AvahiServiceBrowserCallback>::Create(
            [self = shared_from_this()](AvahiServiceBrowser*, AvahiIfIndex interface, proto_cvtr protocol,
                                        AvahiBrowserEvent event, nullable_str name, nullable_str type,
                                        nullable_str domain, AvahiLookupResultFlags) {
                self->BrowseResult(event, {interface, protocol, name, type, domain});
            },
            [this](AvahiServiceBrowserCallback callback, void* userData)
            {
                return avahi_service_browser_new(m_impl->m_client, AVAHI_IF_UNSPEC, AVAHI_PROTO_UNSPEC, m_type.c_str(),
                                                 nullptr, AvahiLookupFlags{}, callback, userData);
            });
        if (browser == nullptr)
        {
            AVAHI_ERROR_LINE(s_log, "avahi_service_browser_new", avahi_client_errno(m_impl->m_client));
            return false;
        }
        m_browser = browser;
        m_browserConnection = connection;
        return true;
    }

    void EndBrowser()
    {
        if (m_browser != nullptr)
        {
            const int result = avahi_service_browser_free(std::exchange(m_browser, nullptr));
            if (result < 0)
            {
                AVAHI_ERROR_LINE(s_log, "avahi_service_browser_free", result);
            }
            std::exchange(m_browserConnection, {}).Disconnect();
        }
    }

    void BrowseResult(int event, const ServiceId& id)
    {
        m_impl->m_pollThread.InCallback();
        switch (event)
        {
        case AVAHI_BROWSER_NEW:
            if (m_look.IsNews(id))
            {
                StartTimer();
                Added(id);
            }
            break;
        case AVAHI_BROWSER_REMOVE:
            if (m_look.IsTold(id))
            {
                Removed(id);
            }
            break;
        case AVAHI_BROWSER_CACHE_EXHAUSTED:
            DPRINTF(s_log, DPrint::LEVEL_VERBOSE, "CACHE EXHAUSTED");
            TellChanges();
            break;
        case AVAHI_BROWSER_ALL_FOR_NOW:
            DPRINTF(s_log, DPrint::LEVEL_VERBOSE, "All for now");
            TellChanges();
            m_look.AllForNow();
            break;
        case AVAHI_BROWSER_FAILURE:
            AVAHI_ERROR_LINE(s_log, "BrowseResult", avahi_client_errno(m_impl->m_client));
            m_impl->Fail();
            break;
        default:
            break;
        }
    }

    void Added(const ServiceId& id) const
    {
        DPRINTF(s_log, DPrint::LEVEL_DEBUG, "Got service: %s, %s, %s", id.name.c_str(), id.type.c_str(),
                id.domain.c_str());
        m_added(id);
    }

    void Removed(const ServiceId& id) const
    {
        DPRINTF(s_log, DPrint::LEVEL_DEBUG, "bye bye: %s, %s, %s", id.name.c_str(), id.type.c_str(), id.domain.c_str());
        m_removed(id);
    }

    bool IsEnded() const
    {
        return m_isEnded || m_impl->m_stopped;
    }

    /// Whom this calls may end the browse or stop the instance, and hears no more then.
    void TellChanges()
    {
        const auto [gone, come] = m_look.TakeChanges();
        for (auto id = gone.begin(); id != gone.end() && !IsEnded(); ++id)
        {
            Removed(*id);
        }
        for (auto id = come.begin(); id != come.end() && !IsEnded(); ++id)
        {
            Added(*id);
        }
    }

    /// By the kernel's own monotonic clock: Avahi's timers follow the wall clock, which is often set just after a
    /// product's start, and set back it would leave the browse ended for as long. Only on the poll thread: Avahi
    /// asserts where another one adds a watch while it polls.
    void StartTimer()
    {
        if (m_timer >= 0 || !m_look.NextMs())
        {
            return;
        }
        m_timer = timerfd_create(CLOCK_MONOTONIC, TFD_CLOEXEC | TFD_NONBLOCK);
        if (m_timer < 0)
        {
            DPRINTF(s_log, DPrint::LEVEL_WARNING, "no timer to look twice for %s: %s", m_type.c_str(),
                    std::strerror(errno));
            m_look = {};
            return;
        }
        SetTimer();
        const AvahiPoll* const poll = avahi_threaded_poll_get(m_impl->m_poll);
        auto [watch, connection] = detail::AdapterOf<AvahiWatchCallback>::Create(
            [self = shared_from_this()](AvahiWatch*, int, AvahiWatchEvent) { self->TimerDue(); },
            [this, poll](AvahiWatchCallback callback, void* userData)
            { return poll->watch_new(poll, m_timer, AVAHI_WATCH_IN, callback, userData); });
        m_watch = watch;
        m_watchConnection = connection;
    }

    void SetTimer() const
    {
        const std::int64_t pause = std::max<std::int64_t>(*m_look.NextMs() - MonotonicClock::NowMs(), 1);
        itimerspec time{};
        time.it_value.tv_sec = static_cast<time_t>(pause / 1000);
        time.it_value.tv_nsec = static_cast<long>(pause % 1000 * 1000000);
        timerfd_settime(m_timer, 0, &time, nullptr);
    }

    void EndTimer()
    {
        if (m_watch != nullptr)
        {
            avahi_threaded_poll_get(m_impl->m_poll)->watch_free(std::exchange(m_watch, nullptr));
            std::exchange(m_watchConnection, {}).Disconnect();
        }
        if (m_timer >= 0)
        {
            close(std::exchange(m_timer, -1));
        }
    }

    void TimerDue()
    {
        m_impl->m_pollThread.InCallback();
        if (m_impl->m_hasFailed) // whoever asked will be told, or has been
        {
            EndTimer();
            return;
        }
        switch (m_look.Due(MonotonicClock::NowMs()))
        {
        case SecondLook::Step::END_BROWSE:
            EndBrowser();
            SetTimer();
            DPRINTF(s_log, DPrint::LEVEL_INFO, "many %s answer at once: they are asked twice", m_type.c_str());
            break;
        case SecondLook::Step::BROWSE:
            EndTimer();
            if (!StartBrowser())
            {
                m_impl->Fail();
            }
            break;
        case SecondLook::Step::NOTHING:
            EndTimer();
            break;
        }
    }

    const std::shared_ptr<AvahiImpl> m_impl;
    const std::string m_type;
    const Callback<ServiceId> m_added;
    const Callback<ServiceId> m_removed;
    AvahiServiceBrowser* m_browser = nullptr; ///< null between the two
    CallbackConnection m_browserConnection;   ///< the adapter that carries its events
    SecondLook m_look;
    int m_timer = -1; ///< of the look; closed when there is nothing to wait for
    AvahiWatch* m_watch = nullptr;
    CallbackConnection m_watchConnection;
    bool m_isEnded = false;
};

CallbackConnection AvahiImpl::Browse(std::string type, Callback<ServiceId> added, Callback<ServiceId> removed)
{
    if (!IsText({-1, Protocol::UNSPEC, {}, type, {}}))
    {
        AVAHI_ERROR_LINE(s_log, "avahi_service_browser_new", AVAHI_ERR_INVALID_SERVICE_TYPE);
        return {};
    }
    const auto browsing =
        std::make_shared<Browsing>(shared_from_this(), std::move(type), std::move(added), std::move(removed));
    const AvahiPollThread::Lock lock(m_pollThread, m_poll);
    if (!browsing->Start())
    {
        return {};
    }
    return MakeCleanupConnection(
        [self = shared_from_this(), browsing]
        {
            const AvahiPollThread::Lock cleanupLock(self->m_pollThread, self->m_poll);
            browsing->End();
        });
}

} // namespace MDNS
