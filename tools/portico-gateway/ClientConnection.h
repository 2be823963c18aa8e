#pragma once

#include "tools/portico-gateway/PendingRequests.h"
#include "tools/portico-gateway/Router.h"
#include "tools/portico-gateway/RpcFrame.h"
#include "tools/portico-gateway/Subscriptions.h"
#include "tools/portico-gateway/Surroundings.h"

#include <cstddef>
#include <functional>
#include <memory>
#include <string>

namespace WebSocket
{
class Connection;
}

namespace Gateway
{

/// One client: its messages are read, held against the protocol, and answered. What the methods do is the
/// derived class's.
/// Task: everything on the gateway's. Owner: the gateway, until `gone`. Whatever bytes come, it answers or drops.
class ClientConnection : public SubscriberIF, public std::enable_shared_from_this<ClientConnection>
{
public:
    using GoneCallback = std::function<void(ClientConnection*)>;

    ~ClientConnection() override;
    ClientConnection(const ClientConnection&) = delete;
    ClientConnection& operator=(const ClientConnection&) = delete;

    /// Takes the connection into use. `gone` is the last that happens to it.
    void Start(GoneCallback gone);
    void Tell(const std::string& frame) final;
    bool HasRoom(std::size_t bytes) const final;

    /// The own service has served its list: what waited for that may go on.
    virtual void HandleOwnList() {}

protected:
    ClientConnection(const Surroundings& surroundings, std::shared_ptr<WebSocket::Connection> connection,
                     std::size_t maxRequests);

    /// `answer` may be called at once or later; a client that has gone by then hears nothing.
    virtual void Open(const Params& params, const AnswerCallback& answer) = 0;
    virtual void HandleCall(const std::string& method, const Params& params, const AnswerCallback& answer) = 0;
    virtual void HandleAnswer(const std::string& id, const Answer& answer) = 0;
    virtual void HandleGone() = 0;

    /// For a method that needs a path: false, and the error answered, where it has none.
    static bool HasPath(const Params& params, const AnswerCallback& answer);
    static Request MakeRequest(const std::string& verb, const Params& params);

    const Surroundings& m_surroundings;
    const std::shared_ptr<WebSocket::Connection> m_connection;

private:
    void HandleMessage(const std::string& text);
    void HandleFrame(const Frame& frame, const AnswerCallback& answer);
    AnswerCallback MakeAnswer(const Frame& frame);

    const std::size_t m_maxRequests; ///< that may wait for their answers at a time
    std::size_t m_requests = 0;
    bool m_isOpen = false; ///< `open` was answered
    GoneCallback m_gone;
};

} // namespace Gateway
