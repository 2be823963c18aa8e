#pragma once

#include "tests/support/Inbox.h"
#include "tests/support/RealTask.h"
#include "websocket/WebSocket.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <utility>

/// A client of the gateway that sends and receives single frames. Its destructor closes the socket like a process
/// that ends.
/// Thread: the test's.
///
///     RpcClient client(gateway.Port(), "Name");
///     EXPECT_EQ(client.Code("get", {{"path", "/p"}}), 404);
///     client.Take("get");  // a request that came in; answer it with client.Answer(request, {...})
class RpcClient final
{
public:
    using Json = nlohmann::json;

    /// Sends no `open` if `service` is empty.
    explicit RpcClient(std::uint16_t port, const std::string& service = {}, const std::string& guid = {},
                       const std::string& subProtocol = "tarsier")
    {
        WebSocket::Target target;
        target.host = "127.0.0.1";
        target.port = port;
        target.subProtocol = subProtocol;
        m_task.Run(
            [&]
            {
                WebSocket::Connection::Handlers handlers;
                handlers.message = [this](const std::string& text) { Handle(Json::parse(text)); };
                m_connection = WebSocket::Connect(m_task.Get(), target, std::move(handlers), {});
            });
        if (!service.empty())
        {
            Do("open", {{"service", service}, {"guid", guid}});
        }
    }
    ~RpcClient()
    {
        m_task.StopAndJoin(); // closes the socket without a close frame
    }
    RpcClient(const RpcClient&) = delete;
    RpcClient& operator=(const RpcClient&) = delete;

    void Serve(const std::string& verb, const std::string& path, int scope)
    {
        Do("serve", {{"verb", verb}, {"path", path}, {"scope", scope}, {"version", 1.0}, {"label", "Unknown"}});
    }
    /// Serves the record and answers each get with it. While isMute is set, requests are left for Take().
    void ServeRecord(const std::string& path, int scope, const Json& record)
    {
        m_task.Run([&] { m_records[path] = record; });
        Serve("get", path, scope);
    }
    void Subscribe(const std::string& path)
    {
        Do("subscribe", {{"path", path}, {"version", 1.0}, {"scope", 0}});
    }
    void Notify(const std::string& path, const Json& body)
    {
        Send(
            {{"jsonrpc", "2.0"}, {"method", "notify"}, {"params", {{"path", path}, {"version", 1.0}, {"body", body}}}});
    }

    /// Sends a request and waits for the frame that answers it. Returns null and fails the test if none comes.
    Json Call(const std::string& method, const Json& params)
    {
        return AnswerTo(SendRequest(method, params));
    }
    /// Sends a request. Returns the error code of its answer, 0 for a result.
    int Code(const std::string& method, const Json& params)
    {
        return Code(Call(method, params));
    }
    static int Code(const Json& answer)
    {
        return answer.contains("error") ? answer["error"]["code"].get<int>() : 0;
    }
    int SendRequest(const std::string& method, const Json& params) ///< returns the id for AnswerTo()
    {
        const int id = ++m_lastId;
        Send({{"jsonrpc", "2.0"}, {"id", id}, {"method", method}, {"params", params}});
        return id;
    }
    Json AnswerTo(const Json& id)
    {
        return TakeFrame([&](const Json& frame) { return !frame.contains("method") && frame["id"] == id; },
                         "answer to " + id.dump());
    }
    void Answer(const Json& request, const Json& content, const char* kind = "result")
    {
        Send({{"jsonrpc", "2.0"}, {"id", request["id"]}, {kind, content}});
    }

    /// Waits for the next frame of `method` and removes it. Returns null and fails the test if none comes.
    Json Take(const std::string& method)
    {
        return TakeFrame([&](const Json& frame) { return frame.value("method", "") == method; }, method);
    }
    Json TakeBody() ///< of the next notification
    {
        const Json frame = Take("notify");
        return frame.is_null() ? frame : frame["params"]["body"];
    }
    int TakeHeartbeat() ///< its status, 0 if none came
    {
        const Json frame = Take("heartbeat");
        return frame.is_null() ? 0 : frame["params"]["status"].get<int>();
    }
    /// Whether a frame of `method` is there or comes within `limit`. Does not remove it.
    bool Has(const std::string& method, std::chrono::milliseconds limit = std::chrono::milliseconds(0)) const
    {
        return m_frames.Has([&](const Json& frame) { return frame.value("method", "") == method; }, limit);
    }
    /// Returns true if no notification comes before the answer to a request sent now.
    bool HasNoNotification()
    {
        Code("get", {{"path", "/not-served"}});
        return !Has("notify");
    }

    void Send(const Json& frame)
    {
        SendText(frame.dump());
    }
    void SendText(const std::string& text)
    {
        m_task.Run([&] { m_connection->Send(text); });
    }

    std::atomic<bool> isMute{false};
    std::atomic<int> answered{0}; ///< requests answered with a record

private:
    void Do(const std::string& method, const Json& params)
    {
        const Json answer = Call(method, params);
        EXPECT_EQ(answer["result"], Json::object()) << method << " -> " << answer;
    }
    void Handle(const Json& frame)
    {
        if (!isMute && frame.value("method", "") == "get" && m_records.contains(frame["params"]["path"]))
        {
            ++answered;
            const Json answer = {
                {"jsonrpc", "2.0"}, {"id", frame["id"]}, {"result", m_records[frame["params"]["path"]]}};
            m_connection->Send(answer.dump());
            return;
        }
        m_frames.Put(frame);
    }
    template <class Matches>
    Json TakeFrame(Matches matches, const std::string& what)
    {
        const auto taken = m_frames.TakeFirst(matches);
        EXPECT_TRUE(taken) << "no " << what;
        return taken.value_or(nullptr);
    }

    std::shared_ptr<WebSocket::Connection> m_connection; ///< on the task, as m_records
    std::map<std::string, Json> m_records;
    Inbox<Json> m_frames;
    int m_lastId = 0;
    RealTask m_task{"RpcClient"};
};
