#pragma once

#include "tools/portico-gateway/ClientConnection.h"

#include <memory>
#include <string>

namespace Gateway
{

/// Another product's gateway, or whoever else on the LAN: asks and subscribes what has scope 0, and nothing else.
class LanConnection final : public ClientConnection
{
public:
    LanConnection(const Surroundings& surroundings, std::shared_ptr<WebSocket::Connection> connection);
    ~LanConnection() override;

    static constexpr std::size_t kMaxRequests = 64;

private:
    void Open(const Params& params, const AnswerCallback& answer) override;
    void HandleCall(const std::string& method, const Params& params, const AnswerCallback& answer) override;
    void HandleAnswer(const std::string& id, const Answer& answer) override;
    void HandleGone() override;

    void Subscribe(const Params& params, const AnswerCallback& answer);
};

} // namespace Gateway
