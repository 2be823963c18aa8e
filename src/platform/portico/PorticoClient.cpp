#include <PorticoClient.h>

#include "platform/portico/GatewayClient.h"
#include "runtime/FactoryOverride.h"
#include "runtime/Task.h"

#include <utility>

namespace Portico
{

namespace
{

FactoryOverride<PorticoClientFactoryIF*> s_factoryOverride;

/// The task of all gateway clients of the process. Created by the first call, never stopped.
NotifyTargetTaskIF* IoTask()
{
    static NotifyTargetTaskIF* const task = IL::CreateTask("PorticoClientIO", "");
    return task;
}

} // namespace

std::shared_ptr<PorticoClientIF> PorticoClient::Create(std::string serviceName, const std::string& host, int port,
                                                       const std::string& subProtocol, const std::string& guid,
                                                       ConnectCallback* connectCallback,
                                                       std::optional<HeartbeatCallback> heartbeatCallback,
                                                       const CommonClientCreationInfo& info)
{
    if (PorticoClientFactoryIF* const factory = s_factoryOverride.Get())
    {
        return factory->Create(serviceName, host, port, subProtocol, guid, connectCallback, heartbeatCallback, info);
    }
    GatewaySession::Settings settings;
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
    s_factoryOverride.Set(factory);
}

} // namespace Portico
