#include "tools/portico-gateway/LocalConnection.h"

#include "runtime/DPrint.h"
#include "websocket/WebSocket.h"

#include <utility>

namespace Gateway
{
namespace
{

const DPrint s_log("PorticoGateway");

const Request kCheck{"get", "/sonarix/info", "1.0", std::nullopt};

} // namespace

LocalConnection::LocalConnection(const Surroundings& surroundings, std::shared_ptr<WebSocket::Connection> connection)
    : ClientConnection(surroundings, std::move(connection), kMaxRequests)
    , m_asked(surroundings.task, surroundings.ownGuid)
{
}

LocalConnection::~LocalConnection() = default;

void LocalConnection::Open(const Params& params, const AnswerCallback& answer)
{
    m_service = *params.service;
    DPRINTF(s_log, DPrint::LEVEL_DEBUG, "%s: open, guid |%s|", m_service.c_str(), params.guid.c_str());
    answer(Answer::Empty());
    if (!params.guid.empty())
    {
        OpenProduct(params.guid);
    }
}

void LocalConnection::OpenProduct(const std::string& guid)
{
    const auto tell = [this, guid](Heartbeat::Status status)
    {
        DPRINTF(s_log, DPrint::LEVEL_DEBUG, "%s: product %s: %d", m_service.c_str(), guid.c_str(), status);
        m_connection->Send(HeartbeatFrame(guid, status));
    };
    if (guid == m_surroundings.ownGuid)
    {
        m_heartbeat = std::make_unique<Heartbeat>(
            m_surroundings,
            [this](const AnswerCallback& answer) { m_surroundings.router.Send(kCheck, Origin::LOCAL, answer); },
            [] { return true; }, tell);
    }
    else
    {
        RemoteProduct::Callbacks callbacks;
        callbacks.notified = [this](const std::string& path, const std::string& version, const std::string& body)
        { m_connection->Send(NotifyFrame(path, version, body)); };
        callbacks.lost = [this] { m_heartbeat->CheckNow(); };
        m_remote = std::make_unique<RemoteProduct>(m_surroundings, guid, m_connection->SubProtocol(), m_service,
                                                   std::move(callbacks));
        m_heartbeat = std::make_unique<Heartbeat>(
            m_surroundings, [this](const AnswerCallback& answer) { m_remote->SendCheck(kCheck, answer); },
            [this] { return m_remote->IsReached(); }, tell);
    }
    m_heartbeat->CheckNow();
}

void LocalConnection::HandleOwnList()
{
    if (m_remote != nullptr)
    {
        m_remote->HandleOwnList();
    }
    if (m_heartbeat != nullptr)
    {
        m_heartbeat->HandleOwnList();
    }
}

void LocalConnection::HandleCall(const std::string& method, const Params& params, const AnswerCallback& answer)
{
    if (IsVerb(method))
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
            m_surroundings.router.Send(MakeRequest(method, params), Origin::LOCAL, answer);
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
        answer(Answer::Error(METHOD_NOT_FOUND, "no method " + method, m_surroundings.ownGuid));
    }
}

void LocalConnection::HandleServerCall(const std::string& method, const Params& params, const AnswerCallback& answer)
{
    if (m_remote != nullptr)
    {
        answer(Answer::Error(INVALID_REQUEST, "a connection to another product serves nothing", {}));
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
        answer(Answer::Error(INVALID_PARAMS, "no verb", m_surroundings.ownGuid));
        return;
    }
    method == "serve" ? Serve(params, answer) : Withdraw(params, answer);
}

void LocalConnection::Serve(const Params& params, const AnswerCallback& answer)
{
    const Answer served = m_surroundings.router.Serve(this, *params.verb, *params.path, params.scope);
    DPRINTF(s_log, served.IsError() ? DPrint::LEVEL_WARNING : DPrint::LEVEL_INFO, "%s: serve %s %s, scope %d: %s",
            m_service.c_str(), params.verb->c_str(), params.path->c_str(), params.scope,
            served.IsError() ? "taken" : "done");
    answer(served);
}

void LocalConnection::Withdraw(const Params& params, const AnswerCallback& answer)
{
    const Answer withdrawn = m_surroundings.router.Withdraw(this, *params.verb, *params.path);
    if (!m_surroundings.router.IsServedBy(this, *params.path))
    {
        m_surroundings.subscriptions.DropLast(this, *params.path);
    }
    answer(withdrawn);
}

void LocalConnection::Subscribe(const Params& params, const AnswerCallback& answer)
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
    const Answer added = m_surroundings.subscriptions.Add(this, *params.path, Origin::LOCAL);
    answer(added);
    if (!added.IsError())
    {
        m_surroundings.subscriptions.TellLast(this, *params.path, Origin::LOCAL);
    }
}

void LocalConnection::Unsubscribe(const Params& params, const AnswerCallback& answer)
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
        m_surroundings.subscriptions.Remove(this, *params.path);
    }
    answer(Answer::Empty());
}

void LocalConnection::Notify(const Params& params, const AnswerCallback& answer)
{
    if (!m_surroundings.router.IsServedBy(this, *params.path))
    {
        DPRINTF(s_log, DPrint::LEVEL_DEBUG, "%s: a notification of %s, which it does not serve, is dropped",
                m_service.c_str(), params.path->c_str());
        answer(Answer::Error(NOT_SERVED, "this client does not serve " + *params.path, m_surroundings.ownGuid));
        return;
    }
    m_surroundings.subscriptions.Notify(this, *params.path, params.version, params.body.value_or("{}"));
    answer(Answer::Empty());
}

// ---- as a server of paths -----------------------------------------------------------------------------------

void LocalConnection::Handle(const Request& request, const AnswerCallback& answer)
{
    const auto id = m_asked.Add(m_surroundings.timings.requestLimit, answer);
    if (!id)
    {
        answer(Answer::Error(UNREACHABLE, "too many requests wait for " + m_service, m_surroundings.ownGuid));
        return;
    }
    m_connection->Send(CallFrame(*id, request));
}

void LocalConnection::HandleAnswer(const std::string& id, const Answer& answer)
{
    m_asked.Take(id, answer);
}

void LocalConnection::HandleGone()
{
    m_surroundings.router.Forget(this);
    m_surroundings.subscriptions.DropLast(this);
    m_surroundings.subscriptions.Forget(this);
    m_asked.FailAll(Answer::Error(NOT_SERVED, m_service + " has gone before it answered", m_surroundings.ownGuid));
}

} // namespace Gateway
