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

/// A gateway on its own task. Answers `open`, `serve` and the like with {}, keeps every frame for Take(), and sends
/// what the test requests.
///
///     FakeGateway gateway;
///     auto client = PorticoClient::Create(..., gateway.Port(), ...);
///     EXPECT_EQ(gateway.Take("open")["params"]["service"], "Name");
///
/// Thread: the test's.
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
    /// Closes listener and connections, like a killed process.
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

    /// Waits for the next frame of `method` and removes it. Returns {} and fails the test if none comes.
    json Take(const std::string& method)
    {
        const auto frame = m_frames.TakeFirst([&](const json& each) { return each.value("method", "") == method; });
        EXPECT_TRUE(frame) << "no frame of method " << method;
        return frame.value_or(json::object());
    }
    /// The next frame of any method, or null after `milliseconds` without one.
    json TakeAny(int milliseconds)
    {
        return m_frames.Take(std::chrono::milliseconds(milliseconds)).value_or(nullptr);
    }
    /// Waits for the next answer to a request of the test.
    json TakeAnswer()
    {
        return Take("");
    }

    /// Stops automatic answers to `methods`. get, post, put and delete are never answered automatically.
    void SetMute(const std::set<std::string>& methods)
    {
        m_task.Run([&] { m_mute.insert(methods.begin(), methods.end()); });
    }

    /// Sends `text` on the newest connection.
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

    /// Runs `meanwhile` while the gateway reads nothing.
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

    // The following members are used on the task.
    std::shared_ptr<WebSocket::Listener> m_listener;
    std::vector<std::shared_ptr<WebSocket::Connection>> m_connections;
    std::set<std::string> m_mute = {"get", "post", "put", "delete"};

    // The following members are read by the test.
    Inbox<json> m_frames;
    Watched<std::size_t> m_open{0};
    std::uint16_t m_port = 0;

    RealTask m_task{"FakeGateway"};
};
