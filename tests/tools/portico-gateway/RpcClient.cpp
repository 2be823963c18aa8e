#include "RpcClient.h"

#include "WebSocket.h"

#include <gtest/gtest.h>

#include <algorithm>

namespace
{

WebSocket::Target Local(std::uint16_t port, const std::string& subProtocol)
{
    WebSocket::Target target;
    target.host = "127.0.0.1";
    target.port = port;
    target.subProtocol = subProtocol;
    return target;
}

} // namespace

RpcClient::RpcClient(std::uint16_t port, const std::string& subProtocol)
    : RpcClient(Local(port, subProtocol))
{
}

RpcClient::RpcClient(const WebSocket::Target& target)
{
    m_task.Run(
        [&]
        {
            WebSocket::Connection::Handlers handlers;
            handlers.message = [this](const std::string& text)
            { m_frames.Change([&](auto& frames) { frames.push_back(Json::parse(text)); }); };
            handlers.closed = [this](const std::string&) { m_isClosed.Set(true); };
            m_connection = WebSocket::Connect(m_task.Get(), target, std::move(handlers), {});
        });
}

RpcClient::~RpcClient()
{
    m_task.StopAndJoin(); // its socket is closed without a goodbye
}

void RpcClient::Open(const std::string& service, const std::string& guid)
{
    EXPECT_EQ(Call("open", {{"service", service}, {"guid", guid}})["result"], Json::object());
}

void RpcClient::Serve(const std::string& verb, const std::string& path, int scope)
{
    const Json answer =
        Call("serve", {{"verb", verb}, {"path", path}, {"scope", scope}, {"version", 1.0}, {"label", "Unknown"}});
    EXPECT_EQ(answer["result"], Json::object()) << answer;
}

void RpcClient::Subscribe(const std::string& path)
{
    const Json answer = Call("subscribe", {{"path", path}, {"version", 1.0}, {"scope", 0}});
    EXPECT_EQ(answer["result"], Json::object()) << answer;
}

void RpcClient::Notify(const std::string& path, const Json& body)
{
    Send({{"jsonrpc", "2.0"}, {"method", "notify"}, {"params", {{"path", path}, {"version", 1.0}, {"body", body}}}});
}

RpcClient::Json RpcClient::Call(const std::string& method, const Json& params)
{
    return AnswerTo(Ask(method, params));
}

int RpcClient::Ask(const std::string& method, const Json& params)
{
    const int id = ++m_lastId;
    Send({{"jsonrpc", "2.0"}, {"id", id}, {"method", method}, {"params", params}});
    return id;
}

RpcClient::Json RpcClient::AnswerTo(const Json& id)
{
    return TakeFrame([&](const Json& frame) { return !frame.contains("method") && frame["id"] == id; },
                     "answer to " + id.dump());
}

void RpcClient::Answer(const Json& request, const Json& result)
{
    Send({{"jsonrpc", "2.0"}, {"id", request["id"]}, {"result", result}});
}

void RpcClient::AnswerError(const Json& request, const Json& error)
{
    Send({{"jsonrpc", "2.0"}, {"id", request["id"]}, {"error", error}});
}

RpcClient::Json RpcClient::Take(const std::string& method)
{
    return TakeFrame([&](const Json& frame) { return frame.value("method", "") == method; }, method);
}

int RpcClient::TakeHeartbeat()
{
    const Json frame = Take("heartbeat");
    return frame.is_null() ? 0 : frame["params"]["status"].get<int>();
}

bool RpcClient::Has(const std::string& method, std::chrono::milliseconds limit) const
{
    return m_frames.WaitUntil(
        [&](const auto& frames)
        {
            return std::any_of(frames.begin(), frames.end(),
                               [&](const Json& frame) { return frame.value("method", "") == method; });
        },
        limit);
}

void RpcClient::Forget(const std::string& method)
{
    m_frames.Change([&](auto& frames)
                    { std::erase_if(frames, [&](const Json& frame) { return frame.value("method", "") == method; }); });
}

void RpcClient::Send(const Json& frame)
{
    SendText(frame.dump());
}

void RpcClient::SendText(const std::string& text)
{
    m_task.Run([&] { m_connection->Send(text); });
}

bool RpcClient::WaitForClosed(std::chrono::milliseconds limit) const
{
    return m_isClosed.WaitFor(true, limit);
}

int RpcClient::Code(const Json& answer)
{
    return answer.contains("error") ? answer["error"]["code"].get<int>() : 0;
}

template <class Matches>
RpcClient::Json RpcClient::TakeFrame(Matches matches, const std::string& what)
{
    const auto find = [&](auto& frames) { return std::find_if(frames.begin(), frames.end(), matches); };
    Json taken;
    const bool isThere = m_frames.WaitUntil([&](const auto& frames) { return find(frames) != frames.end(); });
    EXPECT_TRUE(isThere) << "no " << what;
    m_frames.Change(
        [&](auto& frames)
        {
            const auto found = find(frames);
            if (found != frames.end())
            {
                taken = std::move(*found);
                frames.erase(found);
            }
        });
    return taken;
}
