#pragma once

#include "Mdns/MdnsService.h"
#include "Mdns/MdnsServiceIF.h"
#include "runtime/Task.h"
#include "runtime/engine/Simulation.h"
#include "schemas/SonarixPb.pb.h"
#include "tests/fakes/FakeMdns.h"
#include "tests/support/LogCapture.h"

#include <gtest/gtest.h>

#include <map>
#include <memory>
#include <string>
#include <vector>

inline const char* const kRenderer = "_kova-lanyard._tcp";
inline const char* const kClock = "_kova-clock._tcp";
inline const char* const kAccessory = "_kova-accessory._tcp";

inline SonarixPb::DeviceInfo MakeDevice(const std::string& name)
{
    SonarixPb::DeviceInfo info;
    info.set_guid("g-own");
    info.set_friendlyname(name);
    info.set_devicetype("RENDERER");
    return info;
}

/// The "publish", "update" and "withdraw" calls since the last call of this function.
inline std::vector<std::string> TakePublishCalls(FakeMdns& mdns)
{
    std::vector<std::string> calls = mdns.Calls();
    mdns.ClearCalls();
    std::erase_if(
        calls, [](const std::string& call)
        { return !call.starts_with("publish") && !call.starts_with("update") && !call.starts_with("withdraw"); });
    return calls;
}

/// Creates the mDNS logic as MdnsService::Create() does, and records it and its task.
class RecordingFactory final : public SonarixService::MdnsService::FactoryIF
{
public:
    RecordingFactory()
    {
        SonarixService::MdnsService::s_factoryOverride.Set(this);
    }
    ~RecordingFactory() override
    {
        SonarixService::MdnsService::s_factoryOverride.Set(nullptr);
    }
    std::shared_ptr<SonarixService::MdnsServiceIF> Create(NotifyTargetTaskIF* task, bool useBackend,
                                                          bool forceNone) override
    {
        const auto service = std::make_shared<SonarixService::MdnsService>(task, useBackend, forceNone);
        m_task = task;
        m_services.push_back(service);
        service->StartService();
        return service;
    }

    NotifyTargetTaskIF* m_task = nullptr;
    std::vector<std::weak_ptr<SonarixService::MdnsServiceIF>> m_services;
};

/// The mDNS logic on a simulated task and a fake LAN.
class MdnsServiceFixture : public testing::Test
{
protected:
    /// Active subscriptions and the running service hold the service object.
    ~MdnsServiceFixture() override
    {
        for (const CallbackConnection& connection : m_connections)
        {
            connection.Disconnect();
        }
        if (m_service)
        {
            m_service->StopService();
            Settle();
        }
    }
    void Start()
    {
        m_service = SonarixService::MdnsService::Create(m_task, true, false);
        Settle();
    }
    void Settle()
    {
        m_simulation.RunUntilIdle();
    }
    void Announce(const std::string& name, const std::string& type, const std::map<std::string, std::string>& txt = {})
    {
        m_mdns.Announce(FakeMdns::MakeService(name, type, txt));
        Settle();
    }

    LogCapture m_log;
    IL::Simulation m_simulation{1};
    FakeMdns m_mdns;
    NotifyTargetTaskIF* const m_task = IL::CreateTask("MdnsTask", "");
    std::shared_ptr<SonarixService::MdnsServiceIF> m_service;
    std::vector<CallbackConnection> m_connections;
};
