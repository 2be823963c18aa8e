#include <PorticoClient.h>
#include <PorticoError.pb.h>

#include <stdexcept>

namespace
{

Portico::PorticoClientFactoryIF* s_factory = nullptr;

} // namespace

void PorticoClientIF::AnswerMarkupError(const Response& error, const std::string& text)
{
    Portico::Error answer;
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
    if (s_factory == nullptr)
    {
        throw std::logic_error("the fake gateway client needs a factory");
    }
    return s_factory->Create(serviceName, host, port, subProtocol, guid, connectCallback, heartbeatCallback, info);
}

void PorticoClient::SetFactoryOverride(PorticoClientFactoryIF* factory)
{
    s_factory = factory;
}

} // namespace Portico
