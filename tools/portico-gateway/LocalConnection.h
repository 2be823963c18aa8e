#pragma once

#include "tools/portico-gateway/ClientConnection.h"
#include "tools/portico-gateway/Heartbeat.h"
#include "tools/portico-gateway/RemoteProduct.h"

#include <memory>
#include <string>

namespace Gateway
{

/// A client on this product: asks, serves, subscribes and notifies here, or, opened with another product's guid,
/// asks and subscribes there.
class LocalConnection final : public ClientConnection, public PathServerIF
{
public:
    LocalConnection(const Surroundings& surroundings, std::shared_ptr<WebSocket::Connection> connection);
    ~LocalConnection() override;

    void Handle(const Request& request, const AnswerCallback& answer) override;
    void HandleOwnList() override;

    static constexpr std::size_t kMaxRequests = 1024;

private:
    void Open(const Params& params, const AnswerCallback& answer) override;
    void HandleCall(const std::string& method, const Params& params, const AnswerCallback& answer) override;
    void HandleAnswer(const std::string& id, const Answer& answer) override;
    void HandleGone() override;

    void OpenProduct(const std::string& guid);
    void HandleServerCall(const std::string& method, const Params& params, const AnswerCallback& answer);
    void Serve(const Params& params, const AnswerCallback& answer);
    void Withdraw(const Params& params, const AnswerCallback& answer);
    void Subscribe(const Params& params, const AnswerCallback& answer);
    void Unsubscribe(const Params& params, const AnswerCallback& answer);
    void Notify(const Params& params, const AnswerCallback& answer);

    std::string m_service;
    PendingRequests m_asked;                 ///< what this client was asked as a server
    std::unique_ptr<RemoteProduct> m_remote; ///< set: opened for another product
    std::unique_ptr<Heartbeat> m_heartbeat;  ///< set: opened with a guid, the own one too
};

} // namespace Gateway
