#pragma once

#include "tests/support/RealTask.h"
#include "tests/support/Watched.h"
#include "tools/portico-gateway/GatewayProgram.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <utility>
#include <vector>

/// A gateway on its own task and free ports, with short check periods.
///
///     GatewayUnderTest gateway("own-guid");
///     RpcClient client(gateway.Port(), "Name");
class GatewayUnderTest final
{
public:
    static Gateway::Settings AnsweringWithin(std::chrono::milliseconds requestLimit)
    {
        Gateway::Settings settings;
        settings.timings.requestLimit = requestLimit;
        return settings;
    }
    explicit GatewayUnderTest(const std::string& guid, Gateway::Settings settings = {})
        : m_settings(std::move(settings))
    {
        m_settings.ownGuid = guid;
        m_settings.port = 0;
        m_settings.lanPort = 0;
        m_settings.timings.checkPeriod = std::chrono::milliseconds(100);
        m_settings.timings.retryPause = std::chrono::milliseconds(50);
        Start();
    }
    ~GatewayUnderTest()
    {
        Kill();
    }
    GatewayUnderTest(const GatewayUnderTest&) = delete;
    GatewayUnderTest& operator=(const GatewayUnderTest&) = delete;

    void Start()
    {
        m_task.Run(
            [this]
            {
                m_program = std::make_unique<Gateway::GatewayProgram>(m_task.Get(), m_settings,
                                                                      std::make_unique<Lookup>(m_task.Get(), *this));
                std::string error;
                ASSERT_TRUE(m_program->Start(error)) << error;
                m_settings.port = m_program->Port(); // kept for the next Start()
                m_settings.lanPort = m_program->LanPort();
            });
    }
    /// Closes all sockets without a message, like a killed process.
    void Kill()
    {
        m_task.Run([this] { m_program.reset(); });
    }

    std::uint16_t Port() const
    {
        return m_settings.port;
    }
    std::uint16_t LanPort() const
    {
        return m_settings.lanPort;
    }

    Watched<std::map<std::string, std::vector<std::string>>> mdns; ///< addresses by guid
    std::atomic<int> mdnsQueries{0};
    std::atomic<bool> isMdnsSilent{false}; ///< queries get no answer

private:
    class Lookup final : public Gateway::MdnsLookupIF
    {
    public:
        Lookup(NotifyTargetTaskIF* task, GatewayUnderTest& owner)
            : m_task(task)
            , m_owner(owner)
        {
        }
        void Find(const std::string& guid, AddressesCallback callback) override
        {
            ++m_owner.mdnsQueries;
            if (!m_owner.isMdnsSilent)
            {
                IL::BreakThread([callback = std::move(callback), found = m_owner.mdns.Get()[guid]] { callback(found); },
                                m_task);
            }
        }

    private:
        NotifyTargetTaskIF* m_task;
        GatewayUnderTest& m_owner;
    };

    Gateway::Settings m_settings;
    std::unique_ptr<Gateway::GatewayProgram> m_program; ///< on the task
    RealTask m_task{"PorticoGateway"};
};
