#pragma once

#include "Mdns/MdnsDiscoveryProtocol.h"
#include "aggregator/DiscoveryServiceAggregator.h"
#include "gateway/DiscoveryServicePorticoClient.h"
#include "ipc/DiscoveryServiceIPCServer.h"
#include "runtime/engine/Simulation.h"
#include "service/DiscoveryServiceController.h"
#include "ssdp/SsdpDiscoveryProtocol.h"
#include "tests/fakes/FakeAggregator.h"
#include "tests/fakes/FakeConsole.h"
#include "tests/fakes/FakeDiscovery.h"
#include "tests/fakes/FakePortico.h"

#include <gtest/gtest.h>

#include <memory>
#include <string>

/// The controller with fakes of all objects that it owns. They record their calls in m_calls.
class ControllerFixture : public testing::Test
{
protected:
    ControllerFixture()
    {
        using namespace SonarixService;
        s_fixture = this;
        MdnsDiscoveryProtocol::s_factoryOverride.Set([]() -> std::shared_ptr<MdnsDiscoveryProtocolIF>
                                                     { return s_fixture->m_mdns; });
        SsdpDiscoveryProtocol::s_factoryOverride.Set([]() -> std::shared_ptr<SsdpDiscoveryProtocolIF>
                                                     { return s_fixture->m_ssdp; });
        DiscoveryServiceIPCServer::s_factoryOverride.Set([](const auto&) -> std::shared_ptr<DiscoveryServiceIPCServerIF>
                                                         { return std::make_shared<FakeIPCServer>(); });
        DiscoveryServiceAggregator::s_factoryOverride.Set(
            [](NotifyTargetTaskIF*, const auto&) -> std::shared_ptr<DiscoveryServiceAggregatorIF>
            { return std::make_shared<FakeAggregator>(); });
        DiscoveryServicePorticoClient::s_factoryOverride.Set(
            [](NotifyTargetTaskIF*, const auto&, const auto&,
               const auto&) -> std::shared_ptr<DiscoveryServicePorticoClientIF>
            { return std::make_shared<FakeGatewayClient>(); });
        m_controller = std::make_shared<DiscoveryServiceController>();
    }
    ~ControllerFixture() override
    {
        using namespace SonarixService;
        MdnsDiscoveryProtocol::s_factoryOverride.Set(nullptr);
        SsdpDiscoveryProtocol::s_factoryOverride.Set(nullptr);
        DiscoveryServiceIPCServer::s_factoryOverride.Set(nullptr);
        DiscoveryServiceAggregator::s_factoryOverride.Set(nullptr);
        DiscoveryServicePorticoClient::s_factoryOverride.Set(nullptr);
    }

    std::shared_ptr<FakeCalls> SharedCalls()
    {
        return {&m_calls, [](FakeCalls*) {}};
    }

    FakeCalls m_calls;
    IL::Simulation m_simulation{1};
    FakePortico m_portico;
    FakeConsole m_console;
    const std::shared_ptr<FakeMdnsDiscoveryProtocol> m_mdns =
        std::make_shared<FakeMdnsDiscoveryProtocol>(SharedCalls());
    const std::shared_ptr<FakeSsdpDiscoveryProtocol> m_ssdp =
        std::make_shared<FakeSsdpDiscoveryProtocol>(SharedCalls());
    std::shared_ptr<SonarixService::DiscoveryServiceController> m_controller;

private:
    class FakeGatewayClient final : public SonarixService::DiscoveryServicePorticoClientIF
    {
    public:
        void Initialize() override
        {
            s_fixture->m_calls.push_back("gateway Initialize");
        }
        void Shutdown() override
        {
            s_fixture->m_calls.push_back("gateway Shutdown");
        }
        void SendSonarixNotification(const Sonarix::Product& product) override
        {
            s_fixture->m_calls.push_back("gateway " + SXCommon::ProductState_Name(product.state()) + ' ' +
                                         product.productinfo().guid());
        }
    };

    class FakeIPCServer final : public SonarixService::DiscoveryServiceIPCServerIF
    {
    public:
        void Initialize() override
        {
            s_fixture->m_calls.push_back("ipc Initialize");
        }
        void Shutdown() override
        {
            s_fixture->m_calls.push_back("ipc Shutdown");
        }
        void SendSonarixNotification(SonarixPb::DeviceState state,
                                     const std::shared_ptr<SonarixPb::DeviceInfo>& device) override
        {
            s_fixture->m_calls.push_back("ipc " + SonarixPb::DeviceState_Name(state) + ' ' + device->guid());
        }
    };

    static inline ControllerFixture* s_fixture = nullptr; ///< for the factories, which are functions without state
};
