#include "platform/portico/GatewayClient.h"

#include "jsonrpc/Frame.h"
#include "runtime/DPrint.h"
#include "runtime/Task.h"

#include <utility>

namespace Portico
{

namespace
{

const DPrint s_log("PorticoClient");

const char* MethodName(Verb verb)
{
    switch (verb)
    {
    case Verb::GET:
        return "get";
    case Verb::POST:
        return "post";
    case Verb::PUT:
        return "put";
    case Verb::DELETE:
        return "delete";
    }
    return "";
}

/// The handle of a registration or a request. It may outlive the client.
class RevocableConnection final : public CallbackConnectionIF
{
public:
    RevocableConnection(NotifyTargetTaskIF* io, std::weak_ptr<GatewaySession> session,
                        std::shared_ptr<RevocableCallbackIF> callback)
        : m_io(io)
        , m_session(std::move(session))
        , m_callback(std::move(callback))
    {
    }

    void Disconnect() override
    {
        m_callback->Revoke();
        GatewaySession::Post(m_io, m_session,
                             [callback = m_callback](GatewaySession& session) { session.Remove(callback.get()); });
    }

    bool IsConnected() const override
    {
        return m_callback->IsActive();
    }

private:
    NotifyTargetTaskIF* m_io;
    std::weak_ptr<GatewaySession> m_session;
    std::shared_ptr<RevocableCallbackIF> m_callback;
};

} // namespace

GatewayClient::GatewayClient(NotifyTargetTaskIF* io, GatewaySession::Settings settings)
    : m_io(io)
    , m_shutdown(std::make_shared<ShutdownState>())
    , m_session(std::make_shared<GatewaySession>(io, m_shutdown, std::move(settings)))
{
    Post([](GatewaySession& session) { session.Start(); });
}

GatewayClient::~GatewayClient()
{
    Shutdown();
    // The entry destroys the session on its task, which owns its timers and its connection.
    IL::BreakThread([session = std::move(m_session)]() mutable { session.reset(); }, m_io);
}

void GatewayClient::Shutdown()
{
    {
        const ScopedMutex lock(m_shutdown->mutex);
        m_shutdown->isShutdown = true;
    }
    Post([](GatewaySession& session) { session.Close(); });
}

CallbackConnection GatewayClient::RegisterGet(const std::string& path, const GetHandler& handler,
                                              const EndpointScope& scope, const double& version,
                                              const std::string& label, const int& option)
{
    const BodyHandler withoutBody = [handler](const std::string&, const Response& response, const Response& error)
    { handler(response, error); };
    return RegisterBody(Verb::GET, path, withoutBody, scope, version, label, option);
}

CallbackConnection GatewayClient::RegisterBody(Verb verb, const std::string& path, const BodyHandler& handler,
                                               const EndpointScope& scope, const double& version,
                                               const std::string& label, const int&)
{
    const auto registration = std::make_shared<Registration>();
    registration->served = std::make_shared<Registration::RequestCallback>(m_shutdown, handler);
    registration->verb = MethodName(verb);
    registration->path = path;
    registration->scope = static_cast<int>(scope);
    registration->version = JsonRpc::VersionFromNumber(version);
    registration->label = label;
    return Add(registration, registration->served);
}

CallbackConnection GatewayClient::RegisterNotificationText(const std::string& path,
                                                           const Callback<std::string>& callback,
                                                           const EndpointScope& scope, const double& version,
                                                           const int&)
{
    const auto registration = std::make_shared<Registration>();
    registration->subscription = std::make_shared<Registration::NotifyCallback>(m_shutdown, callback);
    registration->path = path;
    registration->scope = static_cast<int>(scope);
    registration->version = JsonRpc::VersionFromNumber(version);
    return Add(registration, registration->subscription);
}

CallbackConnection GatewayClient::Add(const std::shared_ptr<Registration>& registration,
                                      std::shared_ptr<RevocableCallbackIF> callback) const
{
    Post([registration](GatewaySession& session) { session.Add(registration); });
    return CallbackConnection(std::make_shared<RevocableConnection>(m_io, m_session, std::move(callback)));
}

CallbackConnection GatewayClient::SendText(Verb verb, const std::string& path, const std::string& body,
                                           const Callback<std::string, std::string>& done, const double& version)
{
    const auto callback = std::make_shared<GatewaySession::AnswerCallback>(m_shutdown, done);
    Post([method = MethodName(verb), path, body, version, callback](GatewaySession& session)
         { session.Request(method, path, body, JsonRpc::VersionFromNumber(version), callback); });
    return CallbackConnection(std::make_shared<RevocableConnection>(m_io, m_session, callback));
}

void GatewayClient::SendNotification(const std::string& path, const google::protobuf::Message& message,
                                     const double& version)
{
    try
    {
        Post([path, body = ProtoToMarkup::ToJson(message, true, false, false), version](GatewaySession& session)
             { session.Notify(path, JsonRpc::VersionFromNumber(version), body); });
    }
    catch (const ProtoToMarkup::MarkupError& failure)
    {
        DPRINT(s_log, DPrint::LEVEL_ERROR, path << ": " << failure.what());
    }
}

void GatewayClient::Post(std::function<void(GatewaySession&)> operation) const
{
    GatewaySession::Post(m_io, m_session, std::move(operation));
}

} // namespace Portico
