// AvahiImpl: browsing.
#include "Mdns/avahi/AvahiCallbackAdapter.h"
#include "Mdns/avahi/AvahiConvert.h"
#include "Mdns/avahi/AvahiErrorLine.h"
#include "Mdns/avahi/AvahiImpl.h"
#include "Mdns/avahi/BrowseRepeat.h"
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

/// One browse: an Avahi browser and, if BrowseRepeat requires it, a second one. Every call holds the poll's lock.
/// Holds the instance; the adapters of its Avahi callbacks hold this object until End().
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
        m_impl->m_pollThread.CheckLocked(__func__);
        m_repeat.Begin(MonotonicClock::NowMs());
        return StartBrowser();
    }

    void End()
    {
        m_impl->m_pollThread.CheckLocked(__func__);
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
            if (m_repeat.Add(id))
            {
                StartTimer();
                Added(id);
            }
            break;
        case AVAHI_BROWSER_REMOVE:
            if (m_repeat.Remove(id))
            {
                Removed(id);
            }
            break;
        case AVAHI_BROWSER_CACHE_EXHAUSTED:
            DPRINTF(s_log, DPrint::LEVEL_VERBOSE, "CACHE EXHAUSTED");
            ReportChanges();
            break;
        case AVAHI_BROWSER_ALL_FOR_NOW:
            DPRINTF(s_log, DPrint::LEVEL_VERBOSE, "All for now");
            ReportChanges();
            m_repeat.AllForNow();
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

    /// A called Callback may end the browse or stop the instance. The remaining changes are not reported then.
    void ReportChanges()
    {
        const auto [removed, added] = m_repeat.TakeChanges();
        for (auto id = removed.begin(); id != removed.end() && !IsEnded(); ++id)
        {
            Removed(*id);
        }
        for (auto id = added.begin(); id != added.end() && !IsEnded(); ++id)
        {
            Added(*id);
        }
    }

    /// Uses a timerfd with the monotonic clock. Avahi's timers use the wall clock, which is often set soon after a
    /// product starts; if it were set back, the browse would stay ended for that time. Runs on the poll thread only:
    /// Avahi asserts if another thread adds a watch while it polls.
    void StartTimer()
    {
        if (m_timer >= 0 || !m_repeat.NextMs())
        {
            return;
        }
        m_timer = timerfd_create(CLOCK_MONOTONIC, TFD_CLOEXEC | TFD_NONBLOCK);
        if (m_timer < 0)
        {
            DPRINTF(s_log, DPrint::LEVEL_WARNING, "no timer to repeat the browse of %s: %s", m_type.c_str(),
                    std::strerror(errno));
            m_repeat = {};
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
        const std::int64_t pause = std::max<std::int64_t>(*m_repeat.NextMs() - MonotonicClock::NowMs(), 1);
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
        if (m_impl->m_hasFailed) // the owner replaces this instance
        {
            EndTimer();
            return;
        }
        switch (m_repeat.Due(MonotonicClock::NowMs()))
        {
        case BrowseRepeat::Step::END_BROWSE:
            EndBrowser();
            SetTimer();
            DPRINTF(s_log, DPrint::LEVEL_INFO, "many %s answer at once: the browse is repeated", m_type.c_str());
            break;
        case BrowseRepeat::Step::BROWSE:
            EndTimer();
            if (!StartBrowser())
            {
                m_impl->Fail();
            }
            break;
        case BrowseRepeat::Step::NOTHING:
            EndTimer();
            break;
        }
    }

    const std::shared_ptr<AvahiImpl> m_impl;
    const std::string m_type;
    const Callback<ServiceId> m_added;
    const Callback<ServiceId> m_removed;
    AvahiServiceBrowser* m_browser = nullptr; ///< null between the first and the second browser
    CallbackConnection m_browserConnection;   ///< the adapter of the browser callback
    BrowseRepeat m_repeat;
    int m_timer = -1; ///< a timerfd; -1 if m_repeat waits for nothing
    AvahiWatch* m_watch = nullptr;
    CallbackConnection m_watchConnection;
    bool m_isEnded = false;
};

CallbackConnection AvahiImpl::Browse(std::string type, Callback<ServiceId> added, Callback<ServiceId> removed)
{
    if (!IsUtf8({-1, Protocol::UNSPEC, {}, type, {}}))
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
