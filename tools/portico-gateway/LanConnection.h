#pragma once

#include "tools/portico-gateway/ClientConnection.h"

#include <memory>
#include <string>

namespace Gateway
{

/// A client from the LAN, usually another product's gateway. It may only get and subscribe to paths of scope 0.
class LanConnection final : public ClientConnection
{
public:
    LanConnection(const GatewayContext& context, std::shared_ptr<WebSocket::Connection> connection);
    ~LanConnection() override;

    static constexpr std::size_t kMaxRequests = 64;

private:
    void Open(const JsonRpc::Params& params, const JsonRpc::AnswerCallback& answer) override;
    void HandleCall(const std::string& method, const JsonRpc::Params& params,
                    const JsonRpc::AnswerCallback& answer) override;
    void HandleAnswer(const std::string& id, const JsonRpc::Answer& answer) override;
    void HandleGone() override;

    void Subscribe(const JsonRpc::Params& params, const JsonRpc::AnswerCallback& answer);
};

} // namespace Gateway
