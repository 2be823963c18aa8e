#include <PorticoClient.h>

#include "platform/portico/GatewayClient.h"
#include "platform/portico/IoTask.h"

#include <utility>

namespace Portico
{

namespace
{

PorticoClientFactoryIF* s_factoryOverride = nullptr;

} // namespace

std::shared_ptr<PorticoClientIF> PorticoClient::Create(std::string serviceName, const std::string& host, int port,
                                                       const std::string& subProtocol, const std::string& guid,
                                                       ConnectCallback* connectCallback,
                                                       std::optional<HeartbeatCallback> heartbeatCallback,
                                                       const CommonClientCreationInfo& info)
{
    if (s_factoryOverride != nullptr)
    {
        return s_factoryOverride->Create(serviceName, host, port, subProtocol, guid, connectCallback, heartbeatCallback,
                                         info);
    }
    Session::Settings settings;
    settings.service = std::move(serviceName);
    settings.host = host;
    settings.port = port;
    settings.subProtocol = subProtocol;
    settings.guid = guid;
    if (connectCallback != nullptr)
    {
        settings.onConnect = *connectCallback;
    }
    settings.onHeartbeat = std::move(heartbeatCallback);
    settings.onRefused = info.onRefused;
    return std::make_shared<GatewayClient>(IoTask(), std::move(settings));
}

void PorticoClient::SetFactoryOverride(PorticoClientFactoryIF* factory)
{
    s_factoryOverride = factory;
}

} // namespace Portico
