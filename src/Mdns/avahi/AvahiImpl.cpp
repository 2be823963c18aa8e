#include "Mdns/avahi/AvahiImpl.h"

#include "Mdns/avahi/AvahiCallbackAdapter.h"
#include "Mdns/avahi/AvahiErrorLine.h"
#include "Mdns/avahi/CleanupConnection.h"

#include <avahi-client/client.h>
#include <avahi-common/thread-watch.h>

#include <exception>
#include <system_error>
#include <thread>
#include <utility>

namespace MDNS
{

namespace
{

const DPrint s_log("mDNS");

/// Must not run on the poll thread. Joins that thread before it frees the client.
void Free(AvahiThreadedPoll* poll, AvahiClient* client)
{
    if (poll != nullptr)
    {
        avahi_threaded_poll_stop(poll); // returns a negative value if the thread has ended
    }
    if (client != nullptr)
    {
        avahi_client_free(client);
    }
    if (poll != nullptr)
    {
        avahi_threaded_poll_free(poll);
    }
}

} // namespace

void detail::LogThrownByCallback() noexcept
{
    try
    {
        throw;
    }
    catch (const std::exception& e)
    {
        DPRINTF(s_log, DPrint::LEVEL_ERROR, "a callback has thrown: %s", e.what());
    }
    catch (...)
    {
        DPRINTF(s_log, DPrint::LEVEL_ERROR, "a callback has thrown");
    }
}

struct AvahiImpl::Owner
{
    explicit Owner(std::shared_ptr<AvahiImpl> owned)
        : impl(std::move(owned))
    {
    }
    Owner(const Owner&) = delete;
    Owner& operator=(const Owner&) = delete;
    ~Owner()
    {
        impl->Stop();
    }

    const std::shared_ptr<AvahiImpl> impl;
};

std::shared_ptr<AvahiImpl> AvahiImpl::Create(Callback<> connected, Callback<> restart)
{
    const auto impl = std::make_shared<AvahiImpl>(Key{}, std::move(connected), std::move(restart));
    if (!impl->Start())
    {
        impl->m_clientConnection.Disconnect();
        return nullptr;
    }
    return {std::make_shared<Owner>(impl), impl.get()};
}

AvahiImpl::AvahiImpl(Key, Callback<> connected, Callback<> restart)
    : m_connected(std::move(connected))
    , m_restart(std::move(restart))
{
}

AvahiImpl::~AvahiImpl()
{
    if (m_pollThread.IsCurrent())
    {
        // A callback has released the last reference. A poll cannot be freed on its own thread. The adapter of the
        // client callback must outlive the client.
        try
        {
            std::thread([poll = m_poll, client = m_client, adapter = m_clientConnection] { Free(poll, client); })
                .detach();
        }
        catch (const std::system_error& e)
        {
            DPRINTF(s_log, DPrint::LEVEL_ERROR, "no thread to free an Avahi client: %s", e.what());
        }
        return;
    }
    Free(m_poll, m_client);
}

bool AvahiImpl::Start()
{
    m_poll = avahi_threaded_poll_new();
    if (m_poll == nullptr)
    {
        DPRINTF(s_log, DPrint::LEVEL_ERROR, "avahi_threaded_poll_new failed");
        return false;
    }

    int error = 0;
    {
        // The poll is not running yet. The Lock marks callbacks inside avahi_client_new() as not on the poll thread.
        const AvahiPollThread::Lock lock(m_pollThread, m_poll);
        auto [client, connection] = detail::AdapterOf<AvahiClientCallback>::Create(
            [self = shared_from_this()](AvahiClient* sender, AvahiClientState state)
            { self->ClientStatus(sender, state); },
            [this, &error](AvahiClientCallback callback, void* userData) {
                return avahi_client_new(avahi_threaded_poll_get(m_poll), AVAHI_CLIENT_NO_FAIL, callback, userData,
                                        &error);
            });
        m_clientConnection = connection;
        m_client = client;
    }
    if (m_client == nullptr)
    {
        AVAHI_ERROR_LINE(s_log, "avahi_client_new", error);
        return false;
    }

    const int result = avahi_threaded_poll_start(m_poll);
    if (result < 0)
    {
        AVAHI_ERROR_LINE(s_log, "avahi_threaded_poll_start", result);
        return false;
    }
    return true;
}

void AvahiImpl::ClientStatus(AvahiClient* client, int state)
{
    m_pollThread.InCallback();
    if (m_client != nullptr && m_client != client)
    {
        DPRINTF(s_log, DPrint::LEVEL_ERROR, "ClientStatus: unknown client %p is not our client %p",
                static_cast<void*>(client), static_cast<void*>(m_client));
        return;
    }
    switch (state)
    {
    case AVAHI_CLIENT_S_REGISTERING:
        DPRINTF(s_log, DPrint::LEVEL_INFO, "Client state: REGISTERING.");
        break;
    case AVAHI_CLIENT_S_RUNNING:
        DPRINTF(s_log, DPrint::LEVEL_INFO, "Client state: RUNNING.");
        m_connected();
        break;
    case AVAHI_CLIENT_S_COLLISION:
        DPRINTF(s_log, DPrint::LEVEL_INFO, "Client state: COLLISION.");
        break;
    case AVAHI_CLIENT_FAILURE:
        AVAHI_ERROR_LINE(s_log, "ClientStatus", avahi_client_errno(client));
        m_resolves.CancelAll(); // before Fail(): ending them one by one would start others, which can only fail
        Fail();
        break;
    case AVAHI_CLIENT_CONNECTING:
        DPRINTF(s_log, DPrint::LEVEL_INFO, "Connecting...");
        break;
    default:
        break;
    }
}

void AvahiImpl::Fail()
{
    m_pollThread.CheckLocked(__func__);
    m_hasFailed = true;
    m_restart();
}

void AvahiImpl::Stop()
{
    if (m_stopped.exchange(true))
    {
        return;
    }
    CancelResolves();
    if (m_pollThread.IsCurrent())
    {
        avahi_threaded_poll_quit(m_poll);
    }
    else
    {
        const int result = avahi_threaded_poll_stop(m_poll);
        if (result < 0)
        {
            AVAHI_ERROR_LINE(s_log, "avahi_threaded_poll_stop", result);
        }
        m_pollThread.Ended();
    }
    m_clientConnection.Disconnect();
}

} // namespace MDNS
