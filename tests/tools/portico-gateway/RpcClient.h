#pragma once

#include "RealTask.h"
#include "Watched.h"

#include <nlohmann/json.hpp>

#include <chrono>
#include <cstdint>
#include <deque>
#include <memory>
#include <string>

namespace WebSocket
{
class Connection;
struct Target;
} // namespace WebSocket

/// A client of the gateway that speaks the protocol word by word, for a test's thread.
///
///     RpcClient client(gateway.Port());
///     client.Open("Name");
///     EXPECT_EQ(client.Call("get", {{"path", "/p"}})["error"]["code"], 404);
///     client.Take("get");  // a request that came in; answer it with client.Answer(request, {...})
class RpcClient final
{
public:
    using Json = nlohmann::json;

    explicit RpcClient(std::uint16_t port, const std::string& subProtocol = "tarsier");
    explicit RpcClient(const WebSocket::Target& target);
    ~RpcClient(); ///< goes as a process that ends
    RpcClient(const RpcClient&) = delete;
    RpcClient& operator=(const RpcClient&) = delete;

    /// Opens; a failed one fails the test.
    void Open(const std::string& service, const std::string& guid = {});
    void Serve(const std::string& verb, const std::string& path, int scope);
    void Subscribe(const std::string& path);
    void Notify(const std::string& path, const Json& body);

    /// A request, and the whole frame that answers it; null, and a failed test, after 10 s.
    Json Call(const std::string& method, const Json& params);
    int Ask(const std::string& method, const Json& params); ///< the id, to be given to AnswerTo
    Json AnswerTo(const Json& id);
    void Answer(const Json& request, const Json& result);
    void AnswerError(const Json& request, const Json& error);

    /// The next frame of that method that came in, not seen again; null, and a failed test, after 10 s.
    Json Take(const std::string& method);
    /// The next status of a heartbeat; 0, and a failed test, after 10 s.
    int TakeHeartbeat();
    /// Whether a frame of that method is there, or comes within `limit`; it stays there.
    bool Has(const std::string& method, std::chrono::milliseconds limit = std::chrono::milliseconds(0)) const;
    void Forget(const std::string& method); ///< all frames of that method that came so far

    void Send(const Json& frame);
    void SendText(const std::string& text);
    bool WaitForClosed(std::chrono::milliseconds limit = std::chrono::seconds(10)) const;

    static int Code(const Json& answer); ///< of an error; 0: a result

private:
    template <class Matches>
    Json TakeFrame(Matches matches, const std::string& what);

    RealTask m_task{"RpcClient"};
    std::shared_ptr<WebSocket::Connection> m_connection;
    Watched<std::deque<Json>> m_frames;
    Watched<bool> m_isClosed{false};
    int m_lastId = 0;
};
