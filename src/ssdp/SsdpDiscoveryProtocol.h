#pragma once

#include "interfaces/SsdpDiscoveryProtocolIF.h"
#include "runtime/CallbackRegistry.h"
#include "runtime/FactoryOverride.h"
#include "runtime/ThreadMutex.h"
#include "ssdp/InterfaceAddresses.h"

#include <functional>
#include <memory>
#include <string>

class APTimerIF;
class IHttpInterface;
class NotifyTargetTaskIF;

namespace SonarixService
{

class SsdpDiscoveryIF;

/// SSDP discovery for the rest of the service. Owns the table of devices from Start() to Stop(), the timer that starts
/// the searches, and the HTTP interface for descriptions; passes every report to all subscribers.
/// Task: the timer's handler runs on "SsdpDiscoveryProtocolTask"; the operations run on the caller's thread. Reports
/// come on "SsdpDiscoveryTask", and on the thread that ends a table, with the table's mutex held: subscribers pass
/// AsyncCallbacks.
/// Owner: the controller, for the life of the process. The destructor joins its task and does not stop it.
/// Never waits for a description: Stop() drops queued fetches, and the result of a running transfer is dropped.
///
/// Design: a search sets all devices to OFFLINE and each response sets one to ONLINE, so a present device is reported
/// every 30 s. Such a report says that the device is present, not that it has changed.
/// Before each search the interface's addresses are compared with those at the start of the table. If they differ, the
/// sockets are useless, and a new table begins as in Start(). This covers changes without a network-down event.
class SsdpDiscoveryProtocol final : public SsdpDiscoveryProtocolIF
{
public:
    using AddressReader = std::function<InterfaceAddresses(const std::string& interfaceName)>;

    static std::shared_ptr<SsdpDiscoveryProtocolIF> Create();
    static inline FactoryOverride<std::shared_ptr<SsdpDiscoveryProtocolIF> (*)()> s_factoryOverride;

    SsdpDiscoveryProtocol();
    /// `http` fetches the descriptions, not null; `readAddresses` is called before each search.
    SsdpDiscoveryProtocol(std::unique_ptr<IHttpInterface> http, AddressReader readAddresses);
    ~SsdpDiscoveryProtocol() override;
    SsdpDiscoveryProtocol(const SsdpDiscoveryProtocol&) = delete;
    SsdpDiscoveryProtocol& operator=(const SsdpDiscoveryProtocol&) = delete;

    /// Searches at once, and then every kPollingPeriodMs. Devices of an earlier Start() are reported OFFLINE first.
    void Start(const std::string& interfaceName) override;
    void Stop() override;
    CallbackConnection RegisterProductStateCallback(const Callback<const Sonarix::Product>& callback) override;
    /// Gives an empty list while discovery is stopped.
    void GetProductList(Sonarix::ProductList& list) override;

    static constexpr unsigned kPollingPeriodMs = 30'000;
    /// Time for responses to one search. A device that stops responding is removed 30 to 40 s after its last response.
    static constexpr int kSearchTimeoutSec = 10;

private:
    void RefreshSonarix();
    void BeginDiscovery();
    void EndDiscovery();

    CallbackRegistry<const Sonarix::Product> m_productRegistry;
    NotifyTargetTaskIF* const m_task;
    const std::shared_ptr<APTimerIF> m_pollTimer;
    const std::unique_ptr<IHttpInterface> m_http;
    const AddressReader m_readAddresses;
    CThreadMutex m_mutex; ///< guards the members below and the timer calls; taken before the table's mutex, never after
    std::string m_interfaceName;
    InterfaceAddresses m_addresses;                   ///< at the start of the table
    std::shared_ptr<SsdpDiscoveryIF> m_ssdpDiscovery; ///< null while stopped
};

} // namespace SonarixService
