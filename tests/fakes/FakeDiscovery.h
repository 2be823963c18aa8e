#pragma once

#include "CallbackRegistry.h"
#include "DiscoveryServiceControllerIF.h"
#include "MdnsDiscoveryProtocolIF.h"
#include "NetManager.pb.h"
#include "Sonarix.pb.h"
#include "SonarixPb.pb.h"
#include "SsdpDiscoveryProtocolIF.h"

#include <deque>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

/// The order in which several fakes were called: give one to all of them.
using FakeCalls = std::vector<std::string>;

/// SSDP discovery that a test speaks for. On one thread: the test's, or that of the one task that uses it.
///
///     auto ssdp = std::make_shared<FakeSsdpDiscoveryProtocol>();
///     ssdp->Report(product);       // as a search would: to every subscriber
///     *ssdp->list.add_products() = product; // what GetProductList gives
class FakeSsdpDiscoveryProtocol final : public SonarixService::SsdpDiscoveryProtocolIF
{
public:
    explicit FakeSsdpDiscoveryProtocol(std::shared_ptr<FakeCalls> log = std::make_shared<FakeCalls>())
        : calls(std::move(log))
    {
    }

    void Start(const std::string& interfaceName) override
    {
        calls->push_back("ssdp Start " + interfaceName);
    }
    void Stop() override
    {
        calls->push_back("ssdp Stop");
    }
    CallbackConnection RegisterProductStateCallback(const Callback<const Sonarix::Product>& callback) override
    {
        ++registrations;
        return m_registry.Connect(callback);
    }
    void GetProductList(Sonarix::ProductList& filled) override
    {
        calls->push_back("ssdp GetProductList");
        filled = list;
    }

    void Report(const Sonarix::Product& product)
    {
        m_registry.Send(product, CallbackConnection());
    }

    const std::shared_ptr<FakeCalls> calls;
    Sonarix::ProductList list;
    int registrations = 0;

private:
    CallbackRegistry<const Sonarix::Product> m_registry;
};

/// mDNS discovery and publishing that a test speaks for. On one thread, as above.
///
///     auto mdns = std::make_shared<FakeMdnsDiscoveryProtocol>();
///     mdns->Report(product);
///     mdns->isStopped = true;      // lists are answered at once, empty
///     mdns->AnswerList(list);      // answers the oldest GetProductList that waits, now
class FakeMdnsDiscoveryProtocol final : public SonarixService::MdnsDiscoveryProtocolIF
{
public:
    using ListCallback = Callback<const Sonarix::ProductList>;

    explicit FakeMdnsDiscoveryProtocol(std::shared_ptr<FakeCalls> log = std::make_shared<FakeCalls>())
        : calls(std::move(log))
    {
    }

    void Start() override
    {
        calls->push_back("mdns Start");
    }
    void Stop() override
    {
        calls->push_back("mdns Stop");
    }
    CallbackConnection RegisterProductStateCallback(const Callback<const Sonarix::Product>& callback) override
    {
        ++registrations;
        return m_registry.Connect(callback);
    }
    CallbackConnection RegisterForServiceRestartNotification(const Callback<>& callback) override
    {
        return m_restarts.Connect(callback);
    }
    void GetProductList(const std::string& serviceType, const ListCallback& callback) override
    {
        calls->push_back("mdns GetProductList " + serviceType);
        if (isStopped || answerAtOnce)
        {
            callback(answerAtOnce.value_or(Sonarix::ProductList()));
        }
        else
        {
            m_waiting.push_back(callback);
        }
    }
    bool AddService(const SonarixPb::Service& service) override
    {
        calls->push_back("mdns AddService " + service.id().name());
        return true;
    }
    void UpdateServiceTxtRecords(const SonarixPb::Service& service, const Callback<bool>& result) override
    {
        calls->push_back("mdns UpdateServiceTxtRecords " + service.id().name());
        result(true);
    }
    void RemoveService(const SonarixPb::Service& service) override
    {
        calls->push_back("mdns RemoveService " + service.id().name());
    }
    void BroadcastInitialDeviceAnnouncement(const SonarixPb::DeviceInfo& info) override
    {
        calls->push_back("mdns BroadcastInitialDeviceAnnouncement");
        announcements.push_back(info);
    }
    void BroadcastInitialAccessoryAnnouncement(const SonarixPb::DeviceInfo& info) override
    {
        calls->push_back("mdns BroadcastInitialAccessoryAnnouncement");
        announcements.push_back(info);
    }
    void NetworkWentUp() override
    {
        calls->push_back("mdns NetworkWentUp");
    }
    void NetworkWentDown() override
    {
        calls->push_back("mdns NetworkWentDown");
    }

    void Report(const Sonarix::Product& product)
    {
        m_registry.Send(product, CallbackConnection());
    }
    void Restarted()
    {
        m_restarts.Send(CallbackConnection());
    }
    std::size_t WaitingLists() const
    {
        return m_waiting.size();
    }
    /// False where no GetProductList waits.
    bool AnswerList(const Sonarix::ProductList& list)
    {
        if (m_waiting.empty())
        {
            return false;
        }
        const ListCallback callback = m_waiting.front();
        m_waiting.pop_front();
        callback(list);
        return true;
    }

    const std::shared_ptr<FakeCalls> calls;
    std::vector<SonarixPb::DeviceInfo> announcements;
    bool isStopped = false;
    std::optional<Sonarix::ProductList> answerAtOnce; ///< lists are answered at once, with this
    int registrations = 0;

private:
    CallbackRegistry<const Sonarix::Product> m_registry;
    CallbackRegistry<> m_restarts;
    std::deque<ListCallback> m_waiting;
};

/// The controller as the aggregator and the gateway client see it; both sources may be empty.
class FakeController final : public SonarixService::DiscoveryServiceControllerIF
{
public:
    void SetNetworkStatus(const NetManager::Protobuf::NetworkStatus& status) override
    {
        statuses.push_back(status);
        calls->push_back("controller SetNetworkStatus");
    }
    std::shared_ptr<SonarixService::SsdpDiscoveryProtocolIF> GetSsdpDiscoveryProtocol() override
    {
        return ssdp;
    }
    std::shared_ptr<SonarixService::MdnsDiscoveryProtocolIF> GetMdnsDiscoveryProtocol() override
    {
        return mdns;
    }

    std::shared_ptr<FakeCalls> calls = std::make_shared<FakeCalls>();
    std::shared_ptr<SonarixService::SsdpDiscoveryProtocolIF> ssdp;
    std::shared_ptr<SonarixService::MdnsDiscoveryProtocolIF> mdns;
    std::vector<NetManager::Protobuf::NetworkStatus> statuses;
};
