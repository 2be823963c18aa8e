#pragma once

#include "Mdns/MdnsServiceIF.h"
#include "Mdns/MdnsTypes.h"
#include "Mdns/RetrySchedule.h"
#include "runtime/Callback.h"
#include "runtime/CallbackConnection.h"
#include "runtime/CallbackRegistry.h"

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

/// Keeps one browser per service type, resolves what they report, holds the table of resolved services and turns each
/// change into a product for the subscribers; holds what this product advertises, and puts it on the network again
/// after each restart of the mDNS daemon.
/// Task: everything but the public stubs, the constructor and RegisterForProductUpdates() runs on `task`, so that
/// nothing here needs a lock; the registry has its own.
/// Owner: MdnsDiscoveryProtocol, which is the only caller. Everything posted and every callback holds the object.
/// Never asks whether a product is alive: a resolved service is ONLINE until its removal or a failed resolve.
/// A name that is browsed and does not resolve is asked for again by RetrySchedule, until it resolves or is removed or
/// its backend goes: where many answer at once, answers get lost. Nothing wakes the task while all is resolved.
///
/// Limits: none of its own on the number of services; one line when they near what the mDNS daemon keeps. A backend
/// that fails is replaced at once and without end; one that cannot be made stays away until the next restart of the
/// service.
class MdnsService final : public MdnsServiceIF, public std::enable_shared_from_this<MdnsService>
{
public:
    /// The flags are those of MDNS::BrowserFactory.
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

    /// Between the resolves of a clock, whose records change without the browser's notice.
    static constexpr unsigned int kReResolveMilliseconds = 300000;

    /// What the mDNS daemon keeps for an interface unless it is configured otherwise, and drops beyond in silence.
    static constexpr std::size_t kDaemonCacheRecords = 4096;
    static constexpr std::size_t kRecordsOfService = 4; ///< PTR, SRV, TXT and its host's A
    static constexpr std::size_t kManyServices = kDaemonCacheRecords / kRecordsOfService * 9 / 10; ///< worth a warning
    static constexpr std::size_t kManyNoMore = kDaemonCacheRecords / kRecordsOfService * 8 / 10; ///< and then a new one

private:
    /// One instance name that a browser has reported. Outlives its resolve, because clocks are resolved again.
    struct ResolverEntry
    {
        MDNS::ServiceId id;
        CallbackConnection connection;
        std::uint64_t ask = 0;      ///< number of its last resolve: the answers of others come too late
        unsigned int failures = 0;  ///< in a row, since it was last reported
        bool isToldOffline = false; ///< since it last resolved
    };

    /// What is known of one service type; bound into every callback of that type.
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

    // Browsing and resolving.
    void StartServiceBrowsers();
    void CreateBrowser(const Record& sb);
    void ClientConnected(const Record& sb);
    void ReconnectClient(const Record& sb);
    void DisconnectClient(const Record& sb);
    void Discovered(const MDNS::ServiceId& id, const Record& sb);
    void Removed(const MDNS::ServiceId& id, const Record& sb);
    void Resolved(const std::string& hostname, const MDNS::Service& s, const Record& sb, std::uint64_t ask);
    void ReResolveClock(const Record& sb);
    void RestartReResolveTimer(const Record& sb);
    /// Cancels what is under way for the name and asks for it anew, behind all others where it has failed.
    void StartResolve(ResolverEntry& entry, const Record& sb);
    void ResolveFailed(ResolverEntry& entry, const Record& sb);
    void RetryDue();
    /// After each change of m_retries.
    void SetRetryTimer();
    void NoteServiceCount();
    void StopServiceAction();

    // Products.
    void AnnounceService(const Filter_t& filter, DiscoverableDeviceType type, const Callback<Sonarix::Product>& cb,
                         const MDNS::Service& service, SonarixPb::DeviceState state);
    void GetProductListAction(const std::string& serviceType, const Callback<const Sonarix::ProductList>& cb);

    // Publishing.
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

    /// Posts a call of `function` on this object, which it holds.
    template <class Function>
    void PostToSelf(Function function);

    std::map<std::string, MDNS::Service> m_discovered; ///< resolved services, by instance name alone
    NotifyTargetTaskIF* const m_task;
    std::map<int, Record> m_browsers; ///< by DiscoverableDeviceType
    CallbackRegistry<MDNS::Service, SonarixPb::DeviceState> m_productRegistry;
    std::shared_ptr<MDNS::Publisher> m_publisher;
    bool m_publisherConnected = false;
    bool m_rendererValid = false;    ///< m_rendererService holds an announcement
    MDNS::Service m_rendererService; ///< the main record, device or accessory, whichever came last
    CallbackConnection m_rendererConnection;
    std::map<std::string, PublishedService> m_publishedServices; ///< by service type: one record per type
    const bool m_useBackend;
    const bool m_forceNone;
    std::string m_ownClockName; ///< instance name of this product's own clock; empty when none is added
    std::shared_ptr<APTimerIF> m_reResolveTimer;
    std::uint64_t m_lastAsk = 0;
    RetrySchedule m_retries;
    std::shared_ptr<APTimerIF> m_retryTimer;
    std::optional<std::int64_t> m_retryTimerMs; ///< for when it is set; empty: it stands
    bool m_toldManyServices = false;
    bool m_isStopped = false; ///< for good: no failed backend is replaced any more
};

} // namespace SonarixService
