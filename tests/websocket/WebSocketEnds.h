#pragma once

#include "tests/support/RealTask.h"
#include "tests/support/Watched.h"
#include "websocket/WebSocket.h"

#include <cstdint>
#include <memory>
#include <string>
#include <utility>
#include <vector>

/// One connection and what its handlers got. The connection is used on the task of its WebSocketEnds.
struct WebSocketEnd
{
    std::shared_ptr<WebSocket::Connection> connection; ///< on the task only
    Watched<bool> isOpen{false};
    Watched<std::vector<std::string>> messages;
    Watched<std::vector<std::string>> closed; ///< the reasons: at most one

    bool WaitForMessages(std::size_t count) const
    {
        return messages.WaitUntil([count](const auto& all) { return all.size() >= count; });
    }
    bool WaitForClosed(std::chrono::milliseconds limit = std::chrono::seconds(10)) const
    {
        return closed.WaitUntil([](const auto& all) { return !all.empty(); }, limit);
    }
    WebSocket::Connection::Handlers Record()
    {
        return {[this] { isOpen.Set(true); },
                [this](const std::string& text) { messages.Change([&](auto& all) { all.push_back(text); }); },
                [this](const std::string& reason) { closed.Change([&](auto& all) { all.push_back(reason); }); }};
    }
};

/// A listener and its connections, on one task.
class WebSocketEnds
{
public:
    explicit WebSocketEnds(const WebSocket::Limits& limits = {}, WebSocket::ListenOptions options = {})
    {
        options.limits = limits;
        options.subProtocols = {"tarsier"};
        const auto accept = [this](std::shared_ptr<WebSocket::Connection> connection)
        {
            auto end = std::make_shared<WebSocketEnd>();
            end->connection = std::move(connection);
            end->connection->SetHandlers(end->Record());
            accepted.Change([&](auto& all) { all.push_back(end); });
        };
        std::string error;
        task.Run([&] { m_listener = WebSocket::Listen(task.Get(), options, accept, error); });
    }
    ~WebSocketEnds()
    {
        task.StopAndJoin();
    }
    WebSocketEnds(const WebSocketEnds&) = delete;
    WebSocketEnds& operator=(const WebSocketEnds&) = delete;

    std::uint16_t Port() const
    {
        return m_listener->Port();
    }
    WebSocket::Target Here(const std::string& subProtocol = "tarsier") const
    {
        return {"127.0.0.1", Port(), subProtocol, nullptr, ""};
    }
    std::shared_ptr<WebSocketEnd> Connect(const WebSocket::Target& target, const WebSocket::Limits& limits = {})
    {
        auto end = std::make_shared<WebSocketEnd>();
        m_connected.push_back(end);
        task.Run([&] { end->connection = WebSocket::Connect(task.Get(), target, end->Record(), limits); });
        return end;
    }
    /// Waits for the connection. Throws if it does not come.
    std::shared_ptr<WebSocketEnd> Accepted(std::size_t index = 0) const
    {
        accepted.WaitUntil([index](const auto& all) { return all.size() > index; });
        return accepted.Get().at(index);
    }
    void Send(const std::shared_ptr<WebSocketEnd>& end, const std::string& text) const
    {
        task.Run([&] { end->connection->Send(text); });
    }

    const RealTask task{"WebSocketTest"};
    Watched<std::vector<std::shared_ptr<WebSocketEnd>>> accepted;

private:
    std::shared_ptr<WebSocket::Listener> m_listener;
    std::vector<std::shared_ptr<WebSocketEnd>> m_connected; ///< destroyed after the task has ended
};
