#pragma once

#include "jsonrpc/Frame.h"
#include "jsonrpc/PendingRequests.h"
#include "tools/portico-gateway/GatewayContext.h"
#include "tools/portico-gateway/Router.h"
#include "tools/portico-gateway/Subscriptions.h"

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

/// One client: parses its messages, checks them against the protocol and sends the answers. The derived class
/// performs the methods.
/// Task: everything on the gateway's task. Owner: the gateway, until it calls `gone`. Any bytes are answered or
/// dropped.
class ClientConnection : public SubscriberIF, public std::enable_shared_from_this<ClientConnection>
{
public:
    using GoneCallback = std::function<void(ClientConnection*)>;

    ~ClientConnection() override;
    ClientConnection(const ClientConnection&) = delete;
    ClientConnection& operator=(const ClientConnection&) = delete;

    /// Starts to handle messages. `gone` is called last, when the connection has ended.
    void Start(GoneCallback gone);
    void Send(const std::string& frame) final;
    bool HasRoomFor(std::size_t bytes) const final;

    /// Called each time this product's service begins to serve its product list.
    virtual void HandleOwnList() {}

protected:
    ClientConnection(const GatewayContext& context, std::shared_ptr<WebSocket::Connection> connection,
                     std::size_t maxRequests);

    /// `answer` may be called now or later. It does nothing after the client has disconnected.
    virtual void Open(const JsonRpc::Params& params, const JsonRpc::AnswerCallback& answer) = 0;
    virtual void HandleCall(const std::string& method, const JsonRpc::Params& params,
                            const JsonRpc::AnswerCallback& answer) = 0;
    virtual void HandleAnswer(const std::string& id, const JsonRpc::Answer& answer) = 0;
    virtual void HandleGone() = 0;

    /// Returns false, after answering with an error, if the parameters have no path.
    static bool HasPath(const JsonRpc::Params& params, const JsonRpc::AnswerCallback& answer);
    void Fail(const JsonRpc::AnswerCallback& answer, int code, const std::string& message) const;
    /// Adds the subscription, answers, and sends the last notification of the path.
    void AddSubscription(const std::string& path, Origin origin, const JsonRpc::AnswerCallback& answer);
    static JsonRpc::Request MakeRequest(const std::string& verb, const JsonRpc::Params& params);

    const GatewayContext& m_context;
    const std::shared_ptr<WebSocket::Connection> m_connection;

private:
    void HandleMessage(const std::string& text);
    void HandleFrame(const JsonRpc::Frame& frame, const JsonRpc::AnswerCallback& answer);
    JsonRpc::AnswerCallback MakeAnswer(const JsonRpc::Frame& frame);

    const std::size_t m_maxRequests; ///< limit of requests without an answer
    std::size_t m_requests = 0;
    bool m_isOpen = false; ///< `open` has succeeded
    GoneCallback m_gone;
};

} // namespace Gateway
