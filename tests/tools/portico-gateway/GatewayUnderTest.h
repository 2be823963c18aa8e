#pragma once

#include "GatewayProgram.h"
#include "RealTask.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include <unistd.h>

/// What mDNS knows in a test. Shared by the test's thread and the gateway's task.
class FakeLookup
{
public:
    void Set(const std::string& guid, const std::vector<std::string>& addresses)
    {
        const std::lock_guard lock(m_mutex);
        m_addresses[guid] = addresses;
    }
    std::vector<std::string> Get(const std::string& guid) const
    {
        const std::lock_guard lock(m_mutex);
        const auto found = m_addresses.find(guid);
        return found != m_addresses.end() ? found->second : std::vector<std::string>();
    }
    std::atomic<int> questions{0};
    std::atomic<bool> isSilent{false}; ///< no question is answered

private:
    mutable std::mutex m_mutex;
    std::map<std::string, std::vector<std::string>> m_addresses;
};

/// A gateway on a task of its own, on free ports, with checks that follow each other quickly.
///
///     GatewayUnderTest gateway("own-guid");
///     RpcClient client(gateway.Port());
class GatewayUnderTest final
{
public:
    explicit GatewayUnderTest(const std::string& guid, Gateway::Settings settings = {})
        : m_settings(std::move(settings))
    {
        m_settings.ownGuid = guid;
        if (m_settings.port == Gateway::Settings().port)
        {
            m_settings.port = 0;
            m_settings.lanPort = 0;
        }
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
        m_task = std::make_unique<RealTask>("PorticoGateway");
        m_task->Run(
            [this]
            {
                m_program = std::make_unique<Gateway::GatewayProgram>(m_task->Get(), m_settings,
                                                                      std::make_unique<Lookup>(m_task->Get(), lookup));
                std::string error;
                ASSERT_TRUE(m_program->Start(error)) << error;
                m_settings.port = m_program->Port(); // the same ones after a restart
                m_settings.lanPort = m_program->LanPort();
            });
    }
    /// As a process that is killed: sockets go, nothing is said.
    void Kill()
    {
        if (m_task != nullptr)
        {
            m_task->Run([this] { m_program.reset(); });
            m_task.reset();
        }
    }

    std::uint16_t Port() const
    {
        return m_settings.port;
    }
    std::uint16_t LanPort() const
    {
        return m_settings.lanPort;
    }
    std::size_t ClientCount() const
    {
        std::size_t count = 0;
        m_task->Run([&] { count = m_program->ClientCount(); });
        return count;
    }

    FakeLookup lookup;

private:
    class Lookup final : public Gateway::MdnsLookupIF
    {
    public:
        Lookup(NotifyTargetTaskIF* task, FakeLookup& lookup)
            : m_task(task)
            , m_lookup(lookup)
        {
        }
        void Find(const std::string& guid, AddressesCallback callback) override
        {
            ++m_lookup.questions;
            if (m_lookup.isSilent)
            {
                return;
            }
            IL::BreakThread([callback = std::move(callback), found = m_lookup.Get(guid)] { callback(found); }, m_task);
        }

    private:
        NotifyTargetTaskIF* m_task;
        FakeLookup& m_lookup;
    };

    Gateway::Settings m_settings;
    std::unique_ptr<RealTask> m_task;
    std::unique_ptr<Gateway::GatewayProgram> m_program;
};

/// A file of a test's own, gone with it.
class TemporaryFile final
{
public:
    explicit TemporaryFile(const std::string& text)
    {
        std::string pattern = (std::filesystem::temp_directory_path() / "gateway-test-XXXXXX").string();
        const int descriptor = mkstemp(pattern.data());
        EXPECT_GE(descriptor, 0);
        std::ofstream("/proc/self/fd/" + std::to_string(descriptor)) << text;
        close(descriptor);
        m_path = pattern;
    }
    ~TemporaryFile()
    {
        std::error_code ignored;
        std::filesystem::remove(m_path, ignored);
    }
    TemporaryFile(const TemporaryFile&) = delete;
    TemporaryFile& operator=(const TemporaryFile&) = delete;

    const std::string& Path() const
    {
        return m_path;
    }

private:
    std::string m_path;
};
