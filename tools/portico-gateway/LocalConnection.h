#pragma once

#include "tools/portico-gateway/ClientConnection.h"
#include "tools/portico-gateway/Heartbeat.h"
#include "tools/portico-gateway/RemoteProduct.h"

#include <memory>
#include <string>

namespace Gateway
{

/// A client on this product. It requests, serves, subscribes and notifies here. If it has opened another product's
/// guid, it requests and subscribes there.
class LocalConnection final : public ClientConnection, public PathServerIF
{
public:
    LocalConnection(const GatewayContext& context, std::shared_ptr<WebSocket::Connection> connection);
    ~LocalConnection() override;

    void Handle(const JsonRpc::Request& request, const JsonRpc::AnswerCallback& answer) override;
    void HandleOwnList() override;

    static constexpr std::size_t kMaxRequests = 1024;       ///< requests of the client without an answer
    static constexpr std::size_t kMaxServerRequests = 4096; ///< requests sent to the client without an answer

private:
    void Open(const JsonRpc::Params& params, const JsonRpc::AnswerCallback& answer) override;
    void HandleCall(const std::string& method, const JsonRpc::Params& params,
                    const JsonRpc::AnswerCallback& answer) override;
    void HandleAnswer(const std::string& id, const JsonRpc::Answer& answer) override;
    void HandleGone() override;

    void OpenProduct(const std::string& guid);
    void HandleServerCall(const std::string& method, const JsonRpc::Params& params,
                          const JsonRpc::AnswerCallback& answer);
    void Serve(const JsonRpc::Params& params, const JsonRpc::AnswerCallback& answer);
    void Withdraw(const JsonRpc::Params& params, const JsonRpc::AnswerCallback& answer);
    void Subscribe(const JsonRpc::Params& params, const JsonRpc::AnswerCallback& answer);
    void Unsubscribe(const JsonRpc::Params& params, const JsonRpc::AnswerCallback& answer);
    void Notify(const JsonRpc::Params& params, const JsonRpc::AnswerCallback& answer);

    std::string m_service;
    JsonRpc::PendingRequests m_serverRequests; ///< requests sent to this client, for paths that it serves
    std::unique_ptr<RemoteProduct> m_remote;   ///< set if the client opened another product's guid
    std::unique_ptr<Heartbeat> m_heartbeat;    ///< set if the client opened any guid, also this product's
};

} // namespace Gateway
