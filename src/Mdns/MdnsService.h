#pragma once

#include "Mdns/MdnsServiceIF.h"
#include "Mdns/RetrySchedule.h"
#include "Mdns/avahi/MdnsTypes.h"
#include "runtime/Callback.h"
#include "runtime/CallbackConnection.h"
#include "runtime/CallbackRegistry.h"
#include "runtime/FactoryOverride.h"

#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>

class APTimerIF;
class NotifyTargetTaskIF;

namespace MDNS
{
class Browser;
class Publisher;
} // namespace MDNS

namespace SonarixPb
{
enum DeviceState : int;
}

namespace SonarixService
{

/// The mDNS logic. Browsing: one browser per service type resolves the reported services, keeps the table of resolved
/// services and sends each change as a product to the subscribers. Publishing: keeps the services of this product and
/// publishes them again after each restart of the mDNS daemon.
/// Task: everything runs on `task`, except the public operations, the constructor and the destructor. The product
/// registry has its own mutex; nothing else needs one.
/// Owner: MdnsDiscoveryProtocol. Every posted action and every callback holds the object.
/// Never checks whether a product is alive: a resolved service is ONLINE until its removal or a failed resolve.
/// A failed resolve is repeated (RetrySchedule) until it succeeds, the service is removed or the backend fails, because
/// responses get lost if many products answer at once. The task has no wake-up while every service is resolved.
///
/// Limitations: there is no limit on the number of services, only a log line near the limit of the mDNS daemon. A
/// failed backend is replaced at once and any number of times. If a backend cannot be created, its part stays inactive
/// until discovery is stopped and started.
class MdnsService final : public MdnsServiceIF, public std::enable_shared_from_this<MdnsService>
{
public:
    /// For tests: while a FactoryIF is set, Create() calls it instead of making an MdnsService.
    class FactoryIF
    {
    public:
        virtual std::shared_ptr<MdnsServiceIF> Create(NotifyTargetTaskIF* task, bool useBackend, bool forceNone) = 0;
        virtual ~FactoryIF() = default;
    };
    static inline FactoryOverride<FactoryIF*> s_factoryOverride;

    /// Creates and starts a service on `task`. The flags are those of MDNS::BrowserFactory::Create(). Any thread.
    static std::shared_ptr<MdnsServiceIF> Create(NotifyTargetTaskIF* task, bool useBackend, bool forceNone);

    /// Does not start the service.
    MdnsService(NotifyTargetTaskIF* task, bool useBackend, bool forceNone);
    ~MdnsService() override;
    MdnsService(const MdnsService&) = delete;
    MdnsService& operator=(const MdnsService&) = delete;

    void StartService() override;
    void StopService() override;
    void GetProductList(const std::string& serviceType, Callback<const Sonarix::ProductList> cb) override;
    void BroadcastInitialDeviceAnnouncement(const SonarixPb::DeviceInfo& info) override;
    void BroadcastInitialAccessoryAnnouncement(const SonarixPb::DeviceInfo& info) override;
    void AddService(const MDNS::Service& s) override;
    void RemoveService(const MDNS::Service& s) override;
    void UpdateServiceTxtRecords(const MDNS::Service& s, Callback<bool> cb) override;
    void RegisterForProductUpdates(const Filter_t& filter, DiscoverableDeviceType type, Callback<Sonarix::Product> cb,
                                   Callback<CallbackConnection, bool> registered) override;

    /// Period of the clock resolves. The TXT records of a clock change, and a browser does not report that.
    static constexpr unsigned int kReResolveMilliseconds = 300000;

    /// Default cache-entries-max of avahi-daemon, per interface. The daemon drops further records without a log line.
    static constexpr std::size_t kDaemonCacheRecords = 4096;
    static constexpr std::size_t kRecordsOfService = 4; ///< PTR, SRV, TXT, and A of its host
    /// From kManyServices on, one warning is logged. Fewer services than kManyNoMore rearm the warning.
    static constexpr std::size_t kManyServices = kDaemonCacheRecords / kRecordsOfService * 9 / 10;
    static constexpr std::size_t kManyNoMore = kDaemonCacheRecords / kRecordsOfService * 8 / 10;

private:
    /// One instance name that a browser has reported. Kept after it is resolved, until its removal: a failed resolve is
    /// repeated, and those of clocks are repeated periodically.
    struct ResolverEntry
    {
        MDNS::ServiceId id;
        CallbackConnection connection;
        std::uint64_t resolveNumber = 0; ///< of the last resolve; results of earlier ones are ignored
        unsigned int failures = 0;       ///< consecutive, since the last report of the browser
        bool isOfflineSent = false;      ///< since the last successful resolve
    };

    /// The state of one service type. Every callback of that type holds it.
    struct serviceBrowser
    {
        bool connected = false; ///< browsing is under way
        int type = 0;           ///< a DiscoverableDeviceType
        std::shared_ptr<MDNS::Browser> browser;
        std::string serviceType;
        CallbackConnection browseConnection;
        std::map<std::string, ResolverEntry> resolvers; ///< by instance name
    };
    using Record = std::shared_ptr<serviceBrowser>;

    struct PublishedService
    {
        MDNS::Service service;
        CallbackConnection connection; ///< disconnecting withdraws the service
    };

    // Functions for browsing and resolving.
    void StartServiceBrowsers();
    void CreateBrowser(const Record& sb);
    void ClientConnected(const Record& sb);
    void ReconnectClient(const Record& sb);
    void DisconnectClient(const Record& sb);
    void Discovered(const MDNS::ServiceId& id, const Record& sb);
    void Removed(const MDNS::ServiceId& id, const Record& sb);
    void Resolved(const std::string& hostname, const MDNS::Service& s, const Record& sb, std::uint64_t resolveNumber);
    void ReResolveClock(const Record& sb);
    void RestartReResolveTimer(const Record& sb);
    /// Cancels the running resolve of the name and starts another one, as a retry if the last one failed.
    void StartResolve(ResolverEntry& entry, const Record& sb);
    void ResolveFailed(ResolverEntry& entry, const Record& sb);
    void RetryDue();
    /// Arms m_retryTimer for the next retry. To be called after each change of m_retries.
    void SetRetryTimer();
    void CheckServiceCount();
    void StopServiceAction();

    // Functions that pass products to subscribers.
    void AnnounceService(const Filter_t& filter, DiscoverableDeviceType type, const Callback<Sonarix::Product>& cb,
                         const MDNS::Service& service, SonarixPb::DeviceState state);
    void GetProductListAction(const std::string& serviceType, const Callback<const Sonarix::ProductList>& cb);

    // Functions for publishing.
    void BroadcastInitialDeviceAnnouncementAction(const SonarixPb::DeviceInfo& info);
    void BroadcastInitialAccessoryAnnouncementAction(const SonarixPb::DeviceInfo& info);
    void SetRendererService(const std::string& name, const std::string& type, std::map<std::string, std::string> txt);
    void PublishRenderer();
    void AddServiceAction(const MDNS::Service& s);
    void RemoveServiceAction(const MDNS::Service& s);
    void UpdateServiceTxtRecordsAction(const MDNS::Service& s, const Callback<bool>& cb);
    CallbackConnection Publish(const MDNS::ServiceId& id, const MDNS::Service& s);
    void PublisherConnected();
    void ReconnectPublisher();
    void DisconnectPublisher();
    void ServicePublished(const MDNS::ServiceId& id, const MDNS::Service& s);
    void RendererPublished(const MDNS::Service& s);

    /// Posts `function`, called with this object. The queued work holds the object.
    template <class Function>
    void PostToSelf(Function function);

    std::map<std::string, MDNS::Service> m_discovered; ///< resolved services, by instance name alone
    NotifyTargetTaskIF* const m_task;
    std::map<int, Record> m_browsers; ///< by DiscoverableDeviceType
    CallbackRegistry<MDNS::Service, SonarixPb::DeviceState> m_productRegistry;
    std::shared_ptr<MDNS::Publisher> m_publisher;
    bool m_publisherConnected = false;
    bool m_rendererValid = false;    ///< m_rendererService holds an announcement
    MDNS::Service m_rendererService; ///< the main record: that of the last device or accessory announcement
    CallbackConnection m_rendererConnection;
    std::map<std::string, PublishedService> m_publishedServices; ///< by service type: one record per type
    const bool m_useBackend;
    const bool m_forceNone;
    std::string m_ownClockName; ///< instance name of this product's own clock; empty when none is added
    std::shared_ptr<APTimerIF> m_reResolveTimer;
    std::uint64_t m_lastResolveNumber = 0;
    RetrySchedule m_retries;
    std::shared_ptr<APTimerIF> m_retryTimer;
    std::optional<std::int64_t> m_retryTimerMs; ///< expiry of m_retryTimer; empty: not running
    bool m_isManyLogged = false;
    bool m_isStopped = false; ///< permanent: failed backends are not replaced
};

} // namespace SonarixService
