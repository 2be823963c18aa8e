#include "platform/portico/GatewayClient.h"

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

/// Only weak references travel in ordinary entries: the session's last one must go on its own task.
void PostTo(NotifyTargetTaskIF* io, const std::weak_ptr<Session>& weak, std::function<void(Session&)> operation)
{
    IL::BreakThread(
        [weak, operation = std::move(operation)]
        {
            if (const std::shared_ptr<Session> session = weak.lock())
            {
                operation(*session);
            }
        },
        io);
}

/// Handle of a registration or a request. May outlive the client.
class SessionConnection final : public CallbackConnectionIF
{
public:
    SessionConnection(NotifyTargetTaskIF* io, std::weak_ptr<Session> session, std::shared_ptr<SlotIF> slot)
        : m_io(io)
        , m_session(std::move(session))
        , m_slot(std::move(slot))
    {
    }

    void Disconnect() override
    {
        m_slot->Clear();
        PostTo(m_io, m_session, [slot = m_slot](Session& session) { session.Remove(slot.get()); });
    }

    bool IsConnected() const override
    {
        return m_slot->IsSet();
    }

private:
    NotifyTargetTaskIF* m_io;
    std::weak_ptr<Session> m_session;
    std::shared_ptr<SlotIF> m_slot;
};

} // namespace

GatewayClient::GatewayClient(NotifyTargetTaskIF* io, Session::Settings settings)
    : m_io(io)
    , m_gate(std::make_shared<Gate>())
    , m_session(std::make_shared<Session>(io, m_gate, std::move(settings)))
{
    Post([](Session& session) { session.Start(); });
}

GatewayClient::~GatewayClient()
{
    Shutdown();
    // Released within the entry: its timers and its connection belong to that task.
    IL::BreakThread([session = std::move(m_session)]() mutable { session.reset(); }, m_io);
}

void GatewayClient::Shutdown()
{
    {
        const ScopedMutex lock(m_gate->mutex);
        m_gate->isOpen = false;
    }
    Post([](Session& session) { session.Close(); });
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
    registration->serve = std::make_shared<Registration::ServeSlot>(m_gate, handler);
    registration->verb = MethodName(verb);
    registration->path = path;
    registration->scope = static_cast<int>(scope);
    registration->version = version;
    registration->label = label;
    return Add(registration, registration->serve);
}

CallbackConnection GatewayClient::RegisterNotificationText(const std::string& path,
                                                           const Callback<std::string>& callback,
                                                           const EndpointScope& scope, const double& version,
                                                           const int&)
{
    const auto registration = std::make_shared<Registration>();
    registration->listen = std::make_shared<Registration::NotifySlot>(m_gate, callback);
    registration->path = path;
    registration->scope = static_cast<int>(scope);
    registration->version = version;
    return Add(registration, registration->listen);
}

CallbackConnection GatewayClient::Add(const std::shared_ptr<Registration>& registration,
                                      std::shared_ptr<SlotIF> slot) const
{
    Post([registration](Session& session) { session.Add(registration); });
    return CallbackConnection(std::make_shared<SessionConnection>(m_io, m_session, std::move(slot)));
}

CallbackConnection GatewayClient::SendText(Verb verb, const std::string& path, const std::string& body,
                                           const Callback<std::string, std::string>& done, const double& version)
{
    const auto slot = std::make_shared<Session::RequestSlot>(m_gate, done);
    Post([method = MethodName(verb), path, body, version, slot](Session& session)
         { session.Request(method, path, body, version, slot); });
    return CallbackConnection(std::make_shared<SessionConnection>(m_io, m_session, slot));
}

void GatewayClient::SendNotification(const std::string& path, const google::protobuf::Message& message,
                                     const double& version)
{
    try
    {
        Post([path, body = ProtoToMarkup::ToJson(message, true, false, false), version](Session& session)
             { session.Notify(path, body, version); });
    }
    catch (const ProtoToMarkup::MarkupError& failure)
    {
        DPRINT(s_log, DPrint::LEVEL_ERROR, path << ": " << failure.what());
    }
}

void GatewayClient::Post(std::function<void(Session&)> operation) const
{
    PostTo(m_io, m_session, std::move(operation));
}

} // namespace Portico
