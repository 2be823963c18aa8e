#pragma once

#include "FakeMdns.h"
#include "LogCapture.h"
#include "MdnsServiceFactory.h"
#include "MdnsServiceIF.h"
#include "Simulation.h"
#include "Task.h"

#include <gtest/gtest.h>

#include <map>
#include <memory>
#include <string>
#include <vector>

inline const char* const kRenderer = "_kova-lanyard._tcp";
inline const char* const kClock = "_kova-clock._tcp";
inline const char* const kAccessory = "_kova-accessory._tcp";

/// The mDNS logic on a simulated task, with a faked LAN under it.
class MdnsServiceFixture : public testing::Test
{
protected:
    /// A subscription holds the service until it is disconnected, and so does what runs.
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
        m_service = SonarixService::MdnsServiceFactory::Create(m_task, true, false);
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
