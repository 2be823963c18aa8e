#pragma once

#include "RealTask.h"
#include "Watched.h"
#include "WebSocket.h"

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

/// What a test sees of one connection; its connection lives on the task of its Ends.
struct WebSocketEnd
{
    std::shared_ptr<WebSocket::Connection> connection; ///< on the task only
    Watched<bool> isOpen{false};
    Watched<std::vector<std::string>> messages;
    Watched<std::vector<std::string>> closed; ///< the reasons: never more than one

    bool WaitForMessages(std::size_t count) const
    {
        return messages.WaitUntil([count](const auto& all) { return all.size() >= count; });
    }
    bool WaitForClosed() const
    {
        return closed.WaitUntil([](const auto& all) { return !all.empty(); });
    }
    WebSocket::Connection::Handlers Record()
    {
        return {[this] { isOpen.Set(true); },
                [this](const std::string& text) { messages.Change([&](auto& all) { all.push_back(text); }); },
                [this](const std::string& reason) { closed.Change([&](auto& all) { all.push_back(reason); }); }};
    }
};

/// A listener and its connections, all on one task.
class WebSocketEnds
{
public:
    explicit WebSocketEnds(WebSocket::ListenOptions options = {})
    {
        if (options.subProtocols.empty())
        {
            options.subProtocols = {"tarsier"};
        }
        m_task.Run(
            [&]
            {
                m_listener = WebSocket::Listen(
                    m_task.Get(), options,
                    [this](std::shared_ptr<WebSocket::Connection> connection)
                    {
                        auto end = std::make_shared<WebSocketEnd>();
                        end->connection = std::move(connection);
                        end->connection->SetHandlers(end->Record());
                        accepted.Change([&](auto& all) { all.push_back(end); });
                    },
                    m_error);
            });
    }
    ~WebSocketEnds()
    {
        m_task.StopAndJoin();
    }
    WebSocketEnds(const WebSocketEnds&) = delete;
    WebSocketEnds& operator=(const WebSocketEnds&) = delete;

    std::uint16_t Port() const
    {
        return m_listener->Port();
    }
    const RealTask& Task() const
    {
        return m_task;
    }
    void CloseListener()
    {
        m_task.Run([this] { m_listener.reset(); });
    }

    WebSocket::Target Here(const std::string& subProtocol = "tarsier") const
    {
        WebSocket::Target target;
        target.host = "127.0.0.1";
        target.port = Port();
        target.subProtocol = subProtocol;
        return target;
    }

    std::shared_ptr<WebSocketEnd> Connect(const WebSocket::Target& target, const WebSocket::Limits& limits = {})
    {
        auto end = std::make_shared<WebSocketEnd>();
        m_task.Run(
            [&]
            {
                end->connection = WebSocket::Connect(m_task.Get(), target, end->Record(), limits);
                m_connected.push_back(end);
            });
        return end;
    }

    std::shared_ptr<WebSocketEnd> WaitForAccepted(std::size_t index = 0) const
    {
        const bool isThere = accepted.WaitUntil([index](const auto& all) { return all.size() > index; });
        return isThere ? accepted.Get()[index] : nullptr;
    }

    void Send(const std::shared_ptr<WebSocketEnd>& end, const std::string& text) const
    {
        m_task.Run([&] { end->connection->Send(text); });
    }

    Watched<std::vector<std::shared_ptr<WebSocketEnd>>> accepted;

private:
    std::shared_ptr<WebSocket::Listener> m_listener;
    std::string m_error;
    std::vector<std::shared_ptr<WebSocketEnd>> m_connected; ///< die after the task
    RealTask m_task{"WebSocketTest"};
};
