#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <string>

class NotifyTargetTaskIF;
namespace WebSocket
{
class Connection;
class Listener;
} // namespace WebSocket

/// A product's gateway as seen by other products: serves and notifies /sonarix/info at the product's address.
/// Task: all calls run on `task`. Accepts at most kMaxConnections.
class SimulatedGateway final
{
public:
    SimulatedGateway(NotifyTargetTaskIF* task, std::string guid, std::string address, std::uint16_t port,
                     std::uint64_t& requestCount);
    ~SimulatedGateway();
    SimulatedGateway(const SimulatedGateway&) = delete;
    SimulatedGateway& operator=(const SimulatedGateway&) = delete;

    /// Returns false and sets `error` on failure. Does nothing if it listens already.
    bool Listen(std::string& error);
    /// Closes the port and all connections.
    void Close();
    /// Replaces the record and notifies the subscribers.
    void SetRecord(std::string json);

    bool IsListening() const
    {
        return m_listener != nullptr;
    }
    std::size_t Connections() const
    {
        return m_clients.size();
    }

    static constexpr std::size_t kMaxConnections = 256;

private:
    struct Client
    {
        std::shared_ptr<WebSocket::Connection> connection;
        bool isOpen = false;
        bool isSubscribed = false;
    };

    void HandleAccepted(std::shared_ptr<WebSocket::Connection> connection);
    void HandleMessage(Client& client, const std::string& text);

    NotifyTargetTaskIF* const m_task;
    const std::string m_guid;
    const std::string m_address;
    const std::uint16_t m_port;
    std::uint64_t& m_requestCount;
    std::string m_record;
    std::shared_ptr<WebSocket::Listener> m_listener;
    std::map<std::uint64_t, Client> m_clients;
    std::uint64_t m_clientNumber = 0;
};
