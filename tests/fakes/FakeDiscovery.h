#pragma once

#include "interfaces/DiscoveryServiceControllerIF.h"
#include "interfaces/MdnsDiscoveryProtocolIF.h"
#include "interfaces/SsdpDiscoveryProtocolIF.h"
#include "runtime/CallbackRegistry.h"
#include "schemas/NetManager.pb.h"
#include "schemas/Sonarix.pb.h"
#include "schemas/SonarixPb.pb.h"

#include <deque>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

/// The calls of several fakes, in order: pass the same object to all of them.
using FakeCalls = std::vector<std::string>;

/// The common part of both discovery sources. For one thread: that of the test or of the one task that uses it.
template <class Source>
class FakeSource : public Source
{
public:
    explicit FakeSource(std::shared_ptr<FakeCalls> log = std::make_shared<FakeCalls>())
        : calls(std::move(log))
    {
    }
    CallbackConnection RegisterProductStateCallback(const Callback<const Sonarix::Product>& callback) override
    {
        ++registrations;
        return m_registry.Connect(callback);
    }
    void Report(const Sonarix::Product& product)
    {
        m_registry.Send(product, CallbackConnection());
    }

    const std::shared_ptr<FakeCalls> calls;
    int registrations = 0;

private:
    CallbackRegistry<const Sonarix::Product> m_registry;
};

/// SSDP discovery, controlled by the test.
///
///     auto ssdp = std::make_shared<FakeSsdpDiscoveryProtocol>();
///     ssdp->Report(product);       // to all subscribers
///     *ssdp->list.add_products() = product; // the answer of GetProductList
class FakeSsdpDiscoveryProtocol final : public FakeSource<SonarixService::SsdpDiscoveryProtocolIF>
{
public:
    using FakeSource::FakeSource;

    void Start(const std::string& interfaceName) override
    {
        calls->push_back("ssdp Start " + interfaceName);
    }
    void Stop() override
    {
        calls->push_back("ssdp Stop");
    }
    void GetProductList(Sonarix::ProductList& filled) override
    {
        calls->push_back("ssdp GetProductList");
        if (isListBroken)
        {
            throw std::runtime_error("no list");
        }
        filled = list;
    }

    Sonarix::ProductList list;
    bool isListBroken = false;
};

/// mDNS discovery and publishing, controlled by the test.
///
///     auto mdns = std::make_shared<FakeMdnsDiscoveryProtocol>();
///     mdns->Report(product);
///     mdns->answerAtOnce.emplace(); // GetProductList is answered at once, with this list
///     mdns->AnswerList(list);      // answers the oldest pending GetProductList
class FakeMdnsDiscoveryProtocol final : public FakeSource<SonarixService::MdnsDiscoveryProtocolIF>
{
public:
    using ListCallback = Callback<const Sonarix::ProductList>;

    using FakeSource::FakeSource;

    void Start() override
    {
        calls->push_back("mdns Start");
    }
    void Stop() override
    {
        calls->push_back("mdns Stop");
    }
    CallbackConnection RegisterForServiceRestartNotification(const Callback<>& callback) override
    {
        return m_restartRegistry.Connect(callback);
    }
    void Restart()
    {
        m_restartRegistry.Send(CallbackConnection());
    }
    void GetProductList(const std::string& serviceType, const ListCallback& callback) override
    {
        calls->push_back("mdns GetProductList " + serviceType);
        m_waiting.push_back(callback);
        if (answerAtOnce)
        {
            AnswerList(*answerAtOnce);
        }
    }
    bool AddService(const SonarixPb::Service& service) override
    {
        Log("AddService", service);
        return isAccepting;
    }
    void UpdateServiceTxtRecords(const SonarixPb::Service& service, const Callback<bool>& result) override
    {
        Log("UpdateServiceTxtRecords", service);
        result(isAccepting);
    }
    void RemoveService(const SonarixPb::Service& service) override
    {
        Log("RemoveService", service);
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

    std::size_t WaitingLists() const
    {
        return m_waiting.size();
    }
    /// Answers the oldest pending GetProductList. Returns false if there is none.
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

    SonarixPb::Service lastService; ///< of the last add, update or remove
    std::vector<SonarixPb::DeviceInfo> announcements;
    std::optional<Sonarix::ProductList> answerAtOnce; ///< if set, GetProductList is answered at once
    bool isAccepting = true;                          ///< the result of adding and updating

private:
    /// Logs "mdns AddService name type value...", with the values of the TXT records.
    void Log(const std::string& operation, const SonarixPb::Service& service)
    {
        std::string line = "mdns " + operation + ' ' + service.id().name() + ' ' + service.id().type();
        for (const SonarixPb::ServiceRecords& record : service.txt())
        {
            line += ' ' + record.value();
        }
        calls->push_back(line);
        lastService = service;
    }

    CallbackRegistry<> m_restartRegistry;
    std::deque<ListCallback> m_waiting;
};

/// The controller as the aggregator and the gateway client see it. Both sources may be null.
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
