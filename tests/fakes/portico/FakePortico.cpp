// The functions of the gateway client's interface, for a program that links the fake instead of a gateway client.
#include <PorticoClient.h>
#include <PorticoError.pb.h>

#include "runtime/FactoryOverride.h"

#include <stdexcept>

namespace
{

FactoryOverride<Portico::PorticoClientFactoryIF*> s_factory;

} // namespace

void PorticoClientIF::AnswerMarkupError(const Response& error, const std::string& text)
{
    Portico::Error answer;
    answer.set_code(0);
    answer.set_subcode(Portico::kSubcodeMarkup);
    answer.set_message(text);
    error(answer);
}

std::shared_ptr<PorticoClientIF> Portico::PorticoClient::Create(std::string serviceName, const std::string& host,
                                                                int port, const std::string& subProtocol,
                                                                const std::string& guid,
                                                                ConnectCallback* connectCallback,
                                                                std::optional<HeartbeatCallback> heartbeatCallback,
                                                                const CommonClientCreationInfo& info)
{
    PorticoClientFactoryIF* const factory = s_factory.Get();
    if (factory == nullptr)
    {
        throw std::logic_error("no FakePortico exists");
    }
    return factory->Create(serviceName, host, port, subProtocol, guid, connectCallback, heartbeatCallback, info);
}

void Portico::PorticoClient::SetFactoryOverride(PorticoClientFactoryIF* factory)
{
    s_factory.Set(factory);
}
