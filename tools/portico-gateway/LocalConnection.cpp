#include "tools/portico-gateway/LocalConnection.h"

#include "runtime/DPrint.h"
#include "runtime/TaskCheck.h"
#include "websocket/WebSocket.h"

#include <utility>

namespace Gateway
{
namespace
{

const DPrint s_log("PorticoGateway");

const JsonRpc::Request kCheck{"get", "/sonarix/info", "1.0", std::nullopt};

} // namespace

LocalConnection::LocalConnection(const GatewayContext& context, std::shared_ptr<WebSocket::Connection> connection)
    : ClientConnection(context, std::move(connection), kMaxRequests)
    , m_serverRequests(context.task, context.ownGuid, kMaxServerRequests)
{
}

LocalConnection::~LocalConnection() = default;

void LocalConnection::Open(const JsonRpc::Params& params, const JsonRpc::AnswerCallback& answer)
{
    m_service = *params.service;
    DPRINTF(s_log, DPrint::LEVEL_DEBUG, "%s: open, guid |%s|", m_service.c_str(), params.guid.c_str());
    answer(JsonRpc::Answer::Empty());
    if (!params.guid.empty())
    {
        OpenProduct(params.guid);
    }
}

void LocalConnection::OpenProduct(const std::string& guid)
{
    const auto report = [this, guid](Heartbeat::Status status)
    {
        DPRINTF(s_log, DPrint::LEVEL_DEBUG, "%s: product %s: %d", m_service.c_str(), guid.c_str(), status);
        m_connection->Send(JsonRpc::TextFromHeartbeat(guid, status));
    };
    if (guid == m_context.ownGuid)
    {
        m_heartbeat = std::make_unique<Heartbeat>(
            m_context,
            [this](const JsonRpc::AnswerCallback& answer) { m_context.router.Send(kCheck, Origin::LOCAL, answer); },
            [] { return true; }, report);
    }
    else
    {
        RemoteProduct::Callbacks callbacks;
        callbacks.notified = [this](const std::string& path, const std::string& version, const std::string& body)
        { m_connection->Send(JsonRpc::TextFromNotification(path, version, body)); };
        callbacks.lost = [this] { m_heartbeat->CheckNow(); };
        m_remote = std::make_unique<RemoteProduct>(m_context, guid, m_connection->SubProtocol(), m_service,
                                                   std::move(callbacks));
        m_heartbeat = std::make_unique<Heartbeat>(
            m_context, [this](const JsonRpc::AnswerCallback& answer) { m_remote->SendCheck(kCheck, answer); },
            [this] { return m_remote->IsReached(); }, report);
    }
    m_heartbeat->CheckNow();
}

void LocalConnection::HandleOwnList()
{
    TASK_CHECK(m_context.task);
    if (m_remote != nullptr)
    {
        m_remote->HandleOwnList();
    }
    if (m_heartbeat != nullptr)
    {
        m_heartbeat->HandleOwnList();
    }
}

void LocalConnection::HandleCall(const std::string& method, const JsonRpc::Params& params,
                                 const JsonRpc::AnswerCallback& answer)
{
    TASK_CHECK(m_context.task);
    if (JsonRpc::IsVerb(method))
    {
        if (!HasPath(params, answer))
        {
            return;
        }
        if (m_remote != nullptr)
        {
            m_remote->Send(MakeRequest(method, params), answer);
        }
        else
        {
            m_context.router.Send(MakeRequest(method, params), Origin::LOCAL, answer);
        }
    }
    else if (method == "subscribe")
    {
        Subscribe(params, answer);
    }
    else if (method == "unsubscribe")
    {
        Unsubscribe(params, answer);
    }
    else if (method == "serve" || method == "withdraw" || method == "notify")
    {
        HandleServerCall(method, params, answer);
    }
    else
    {
        Fail(answer, JsonRpc::METHOD_NOT_FOUND, "no method " + method);
    }
}

void LocalConnection::HandleServerCall(const std::string& method, const JsonRpc::Params& params,
                                       const JsonRpc::AnswerCallback& answer)
{
    if (m_remote != nullptr)
    {
        answer(JsonRpc::Answer::Error(JsonRpc::INVALID_REQUEST, "a connection to another product serves nothing", {}));
        return;
    }
    if (!HasPath(params, answer))
    {
        return;
    }
    if (method == "notify")
    {
        Notify(params, answer);
        return;
    }
    if (!params.verb)
    {
        Fail(answer, JsonRpc::INVALID_PARAMS, "no verb");
        return;
    }
    method == "serve" ? Serve(params, answer) : Withdraw(params, answer);
}

void LocalConnection::Serve(const JsonRpc::Params& params, const JsonRpc::AnswerCallback& answer)
{
    const JsonRpc::Answer served = m_context.router.Serve(this, *params.verb, *params.path, params.scope);
    DPRINTF(s_log, served.IsError() ? DPrint::LEVEL_WARNING : DPrint::LEVEL_INFO, "%s: serve %s %s, scope %d: %s",
            m_service.c_str(), params.verb->c_str(), params.path->c_str(), params.scope,
            served.IsError() ? "taken" : "done");
    answer(served);
}

void LocalConnection::Withdraw(const JsonRpc::Params& params, const JsonRpc::AnswerCallback& answer)
{
    const JsonRpc::Answer withdrawn = m_context.router.Withdraw(this, *params.verb, *params.path);
    if (!m_context.router.IsServedBy(this, *params.path))
    {
        m_context.subscriptions.DropLast(this, *params.path);
    }
    answer(withdrawn);
}

void LocalConnection::Subscribe(const JsonRpc::Params& params, const JsonRpc::AnswerCallback& answer)
{
    if (!HasPath(params, answer))
    {
        return;
    }
    if (m_remote != nullptr)
    {
        m_remote->Subscribe(*params.path, params.version, params.scope, answer);
        return;
    }
    AddSubscription(*params.path, Origin::LOCAL, answer);
}

void LocalConnection::Unsubscribe(const JsonRpc::Params& params, const JsonRpc::AnswerCallback& answer)
{
    if (!HasPath(params, answer))
    {
        return;
    }
    if (m_remote != nullptr)
    {
        m_remote->Unsubscribe(*params.path);
    }
    else
    {
        m_context.subscriptions.Remove(this, *params.path);
    }
    answer(JsonRpc::Answer::Empty());
}

void LocalConnection::Notify(const JsonRpc::Params& params, const JsonRpc::AnswerCallback& answer)
{
    if (!m_context.router.IsServedBy(this, *params.path))
    {
        DPRINTF(s_log, DPrint::LEVEL_DEBUG, "%s: dropped a notification of %s, which this client does not serve",
                m_service.c_str(), params.path->c_str());
        Fail(answer, JsonRpc::NOT_SERVED, "this client does not serve " + *params.path);
        return;
    }
    m_context.subscriptions.Notify(this, *params.path, params.version, params.body.value_or("{}"));
    answer(JsonRpc::Answer::Empty());
}

// ---- as a server of paths -----------------------------------------------------------------------------------

void LocalConnection::Handle(const JsonRpc::Request& request, const JsonRpc::AnswerCallback& answer)
{
    TASK_CHECK(m_context.task);
    const auto id = m_serverRequests.Add(m_context.timings.requestLimit, answer);
    if (!id)
    {
        Fail(answer, JsonRpc::UNREACHABLE, "too many requests wait for " + m_service);
        return;
    }
    m_connection->Send(JsonRpc::TextFromRequest(*id, request));
}

void LocalConnection::HandleAnswer(const std::string& id, const JsonRpc::Answer& answer)
{
    TASK_CHECK(m_context.task);
    m_serverRequests.Finish(id, answer);
}

void LocalConnection::HandleGone()
{
    TASK_CHECK(m_context.task);
    m_context.router.Forget(this);
    m_context.subscriptions.DropLast(this);
    m_context.subscriptions.Forget(this);
    m_serverRequests.FailAll(
        JsonRpc::Answer::Error(JsonRpc::NOT_SERVED, m_service + " disconnected before it answered", m_context.ownGuid));
}

} // namespace Gateway
