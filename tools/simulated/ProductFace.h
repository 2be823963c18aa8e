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

/// What other products see of one product's gateway: /sonarix/info at its own address, asked or subscribed.
/// Task: everything on the one given. A neighbour can cost it kMaxConnections and no more.
class ProductFace final
{
public:
    ProductFace(NotifyTargetTaskIF* task, std::string guid, std::string address, std::uint16_t port,
                std::uint64_t& requestCount);
    ~ProductFace();
    ProductFace(const ProductFace&) = delete;
    ProductFace& operator=(const ProductFace&) = delete;

    /// False, with the reason in `error`. Listening twice is harmless.
    bool Listen(std::string& error);
    /// Closes the port and all connections.
    void Close();
    /// Tells the subscribers.
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
