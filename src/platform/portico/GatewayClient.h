#pragma once

#include "platform/portico/GatewaySession.h"
#include "platform/portico/RevocableCallback.h"
#include <PorticoClientIF.h>

#include <functional>
#include <memory>
#include <string>

class NotifyTargetTaskIF;

namespace Portico
{

/// The gateway client of the product: copies its arguments and posts them to its session. See PorticoClientIF.
/// Thread: safe from any thread. Owner: the caller of PorticoClient::Create.
class GatewayClient final : public PorticoClientIF
{
public:
    GatewayClient(NotifyTargetTaskIF* io, GatewaySession::Settings settings);
    ~GatewayClient() override;
    GatewayClient(const GatewayClient&) = delete;
    GatewayClient& operator=(const GatewayClient&) = delete;

    CallbackConnection RegisterGet(const std::string& path, const GetHandler& handler, const EndpointScope& scope,
                                   const double& version, const std::string& label, const int& option) override;
    CallbackConnection RegisterBody(Verb verb, const std::string& path, const BodyHandler& handler,
                                    const EndpointScope& scope, const double& version, const std::string& label,
                                    const int& option) override;
    CallbackConnection RegisterNotificationText(const std::string& path, const Callback<std::string>& callback,
                                                const EndpointScope& scope, const double& version,
                                                const int& option) override;
    CallbackConnection SendText(Verb verb, const std::string& path, const std::string& body,
                                const Callback<std::string, std::string>& done, const double& version) override;
    void SendNotification(const std::string& path, const google::protobuf::Message& message,
                          const double& version) override;
    void Shutdown() override;

private:
    void Post(std::function<void(GatewaySession&)> operation) const;
    CallbackConnection Add(const std::shared_ptr<Registration>& registration,
                           std::shared_ptr<RevocableCallbackIF> callback) const;

    NotifyTargetTaskIF* m_io;
    std::shared_ptr<ShutdownState> m_shutdown;
    std::shared_ptr<GatewaySession> m_session;
};

} // namespace Portico
