#pragma once

#include "interfaces/SsdpDiscoveryProtocolIF.h"
#include "runtime/CallbackRegistry.h"
#include "runtime/FactoryOverride.h"
#include "runtime/ThreadMutex.h"
#include "ssdp/InterfaceLink.h"

#include <functional>
#include <memory>
#include <string>

class APTimerIF;
class IHttpInterface;
class NotifyTargetTaskIF;

namespace SonarixService
{

class SsdpDiscoveryIF;

/// What the rest of the service sees of SSDP. Owns the table of devices from a start to a stop, the timer that has it
/// search, and the HTTP interface that descriptions are fetched with; fans every report out to the subscribers.
/// Task: operations run on the caller's, from any; the timer on "SsdpDiscoveryProtocolTask". Reports come on
/// "SsdpDiscoveryTask", and on the thread that ends a table, with the table's mutex held: subscribers pass
/// AsyncCallbacks.
/// Owner: the controller, for the life of the process. The destructor waits for the end of its task, which it does not
/// stop by itself.
/// Never waits for a description: Stop() drops those that wait, and a transfer under way ends unheard within its limit.
///
/// Design: each search lowers all devices and each answer raises one, so every device is reported once in 30 s as long
/// as it lives. Those reports are a heartbeat, no news.
/// An interface that was made anew, or has another address, without the network having been called down, is seen at the
/// next search: the adapter's sockets are of no use then, and a new table begins, as by Start().
class SsdpDiscoveryProtocol final : public SsdpDiscoveryProtocolIF
{
public:
    using LinkReader = std::function<InterfaceLink(const std::string& interfaceName)>;

    static std::shared_ptr<SsdpDiscoveryProtocolIF> Create();
    static inline FactoryOverride<std::shared_ptr<SsdpDiscoveryProtocolIF> (*)()> s_factoryOverride;

    SsdpDiscoveryProtocol();
    /// Descriptions are fetched with `http`, not null; `readLink` tells of the interface before each search.
    SsdpDiscoveryProtocol(std::unique_ptr<IHttpInterface> http, LinkReader readLink);
    ~SsdpDiscoveryProtocol() override;
    SsdpDiscoveryProtocol(const SsdpDiscoveryProtocol&) = delete;
    SsdpDiscoveryProtocol& operator=(const SsdpDiscoveryProtocol&) = delete;

    /// Searches at once, and every kPollingPeriodMs. What an earlier start has found is reported OFFLINE first.
    void Start(const std::string& interfaceName) override;
    void Stop() override;
    CallbackConnection RegisterProductStateCallback(const Callback<const Sonarix::Product>& callback) override;
    /// Empty while stopped.
    void GetProductList(Sonarix::ProductList& list) override;

    static constexpr unsigned kPollingPeriodMs = 30'000;
    /// How long a device has to answer each search. One that stops answering is gone 30 to 40 s after its last answer.
    static constexpr int kSearchTimeoutSec = 10;

private:
    void RefreshSonarix();
    void BeginDiscovery();
    void EndDiscovery();

    CallbackRegistry<const Sonarix::Product> m_productRegistry;
    NotifyTargetTaskIF* const m_task;
    const std::shared_ptr<APTimerIF> m_pollTimer;
    const std::unique_ptr<IHttpInterface> m_http;
    const LinkReader m_readLink;
    CThreadMutex m_mutex; ///< guards what follows and the timer calls; taken before the table's own, never after
    std::string m_interfaceName;
    InterfaceLink m_link;                             ///< as it was when the table was made
    std::shared_ptr<SsdpDiscoveryIF> m_ssdpDiscovery; ///< null while stopped
};

} // namespace SonarixService
