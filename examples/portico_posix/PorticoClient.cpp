#include "PorticoClient.h"

#include "PollLoop.h"
#include "PorticoError.pb.h"
#include "Session.h"

#include <utility>

namespace
{

Portico::PorticoClientFactoryIF* s_factoryOverride = nullptr;

} // namespace

void PorticoClientIF::AnswerMarkupError(const Response& error, const std::string& text)
{
    Portico::Error answer;
    answer.set_code(0);
    answer.set_subcode(Portico::kSubcodeMarkup);
    answer.set_message(text);
    error(answer);
}

namespace Portico
{

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
    const auto session = std::make_shared<Session>(std::move(settings));
    PollLoop::Instance().Add(session);
    // The loop has a reference of its own, so the last one of the user ends the session.
    return {session.get(), [session](PorticoClientIF*) { session->Shutdown(); }};
}

void PorticoClient::SetFactoryOverride(PorticoClientFactoryIF* factory)
{
    s_factoryOverride = factory;
}

} // namespace Portico
