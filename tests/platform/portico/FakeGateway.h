#pragma once

#include "tests/support/Inbox.h"
#include "tests/support/RealTask.h"
#include "tests/support/Watched.h"
#include "websocket/WebSocket.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <functional>
#include <memory>
#include <set>
#include <string>
#include <vector>

/// A gateway of a test's own, on a task of its own: answers `open`, `serve` and the like with {}, keeps every frame
/// for the test to take, and sends what the test tells it to.
///
///     FakeGateway gateway;
///     auto client = PorticoClient::Create(..., gateway.Port(), ...);
///     EXPECT_EQ(gateway.Take("open")["params"]["service"], "Name");
///
/// Used on the test's thread.
class FakeGateway
{
public:
    using json = nlohmann::json;

    explicit FakeGateway(std::uint16_t port = 0)
    {
        m_task.Run(
            [this, port]
            {
                WebSocket::ListenOptions options;
                options.port = port;
                options.subProtocols = {"tarsier", "tarsier_mTLS"};
                std::string error;
                m_listener = WebSocket::Listen(
                    m_task.Get(), options, [this](auto connection) { Accept(connection); }, error);
                ASSERT_TRUE(m_listener) << error;
                m_port = m_listener->Port();
            });
    }
    /// Goes as a killed process does: listener and connections.
    ~FakeGateway()
    {
        m_task.Run(
            [this]
            {
                m_listener.reset();
                for (const auto& connection : m_connections)
                {
                    connection->Close();
                }
                m_connections.clear();
            });
        m_task.StopAndJoin();
    }
    FakeGateway(const FakeGateway&) = delete;
    FakeGateway& operator=(const FakeGateway&) = delete;

    std::uint16_t Port() const
    {
        return m_port;
    }

    /// The next frame of that method, not looked at again; waits for it. Empty, and the test fails, where none comes.
    json Take(const std::string& method)
    {
        const auto frame = m_frames.TakeFirst([&](const json& each) { return each.value("method", "") == method; });
        EXPECT_TRUE(frame) << "no \"" << method << "\" came";
        return frame.value_or(json::object());
    }
    /// The next frame of any method, or null after `milliseconds`.
    json TakeAny(int milliseconds)
    {
        return m_frames.Take(std::chrono::milliseconds(milliseconds)).value_or(nullptr);
    }
    /// The next answer to a request that the test sent.
    json TakeAnswer()
    {
        return Take("");
    }

    /// Not answered by itself; get, post and so on never are.
    void SetMute(const std::set<std::string>& methods)
    {
        m_task.Run([&] { m_mute.insert(methods.begin(), methods.end()); });
    }

    /// On the newest connection.
    void SendText(const std::string& text)
    {
        m_task.Run(
            [&]
            {
                if (!m_connections.empty())
                {
                    m_connections.back()->Send(text);
                }
            });
    }
    void Send(json frame)
    {
        frame["jsonrpc"] = "2.0";
        SendText(frame.dump());
    }
    void Answer(const json& request, const json& result)
    {
        Send({{"id", request["id"]}, {"result", result}});
    }
    void AnswerError(const json& request, int code, const std::string& message)
    {
        const json data = {{"subcode", 7}, {"guid", "G"}};
        Send({{"id", request["id"]}, {"error", {{"code", code}, {"message", message}, {"data", data}}}});
    }
    void Notify(const std::string& path, const json& body)
    {
        Send({{"method", "notify"}, {"params", {{"path", path}, {"version", 1.0}, {"body", body}}}});
    }
    void Request(int id, const std::string& method, const std::string& path, const json& body)
    {
        json params = {{"path", path}, {"version", 1.0}};
        if (!body.is_null())
        {
            params["body"] = body;
        }
        Send({{"id", id}, {"method", method}, {"params", params}});
    }

    /// Runs `meanwhile` while the gateway reads nothing, as one that is held up.
    void Stall(const std::function<void()>& meanwhile)
    {
        m_task.Stall(meanwhile);
    }

    bool WaitForConnections(std::size_t count) const
    {
        return m_open.WaitFor(count);
    }

private:
    void Accept(const std::shared_ptr<WebSocket::Connection>& connection)
    {
        WebSocket::Connection* const raw = connection.get();
        const auto closed = [this, raw](const std::string&)
        {
            std::erase_if(m_connections, [raw](const auto& each) { return each.get() == raw; });
            m_open.Set(m_connections.size());
        };
        connection->SetHandlers({nullptr, [this, raw](const std::string& text) { Handle(*raw, text); }, closed});
        m_connections.push_back(connection);
        m_open.Set(m_connections.size());
    }

    void Handle(WebSocket::Connection& from, const std::string& text)
    {
        const json frame = json::parse(text);
        m_frames.Put(frame);
        if (frame.contains("method") && frame.contains("id") && !m_mute.contains(frame["method"]))
        {
            from.Send(json({{"jsonrpc", "2.0"}, {"id", frame["id"]}, {"result", json::object()}}).dump());
        }
    }

    // On the task.
    std::shared_ptr<WebSocket::Listener> m_listener;
    std::vector<std::shared_ptr<WebSocket::Connection>> m_connections;
    std::set<std::string> m_mute = {"get", "post", "put", "delete"};

    // For the test to look at.
    Inbox<json> m_frames;
    Watched<std::size_t> m_open{0};
    std::uint16_t m_port = 0;

    RealTask m_task{"FakeGateway"};
};
