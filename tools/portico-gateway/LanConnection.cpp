#include "tools/portico-gateway/LanConnection.h"

#include "runtime/DPrint.h"
#include "websocket/WebSocket.h"

#include <utility>

namespace Gateway
{
namespace
{

const DPrint s_log("PorticoGateway");

} // namespace

LanConnection::LanConnection(const Surroundings& surroundings, std::shared_ptr<WebSocket::Connection> connection)
    : ClientConnection(surroundings, std::move(connection), kMaxRequests)
{
}

LanConnection::~LanConnection() = default;

void LanConnection::Open(const Params& params, const AnswerCallback& answer)
{
    if (!params.guid.empty())
    {
        answer(Answer::Error(INVALID_PARAMS, "no product is reached through another", m_surroundings.ownGuid));
        return;
    }
    DPRINTF(s_log, DPrint::LEVEL_DEBUG, "%s: open from %s %s", params.service->c_str(),
            m_connection->PeerAddress().c_str(), m_connection->PeerName().c_str());
    answer(Answer::Empty());
}

void LanConnection::HandleCall(const std::string& method, const Params& params, const AnswerCallback& answer)
{
    if (!IsVerb(method) && method != "subscribe")
    {
        answer(Answer::Error(METHOD_NOT_FOUND, method + " is not for other products", m_surroundings.ownGuid));
        return;
    }
    if (!HasPath(params, answer))
    {
        return;
    }
    if (method == "subscribe")
    {
        Subscribe(params, answer);
        return;
    }
    if (method != "get" && m_surroundings.router.IsPublic(*params.path))
    {
        answer(Answer::Error(WRONG_VERB, "other products only get and subscribe", m_surroundings.ownGuid));
        return;
    }
    if (method != "get")
    {
        answer(Answer::Error(NOT_SERVED, "nobody serves " + *params.path, m_surroundings.ownGuid));
        return;
    }
    m_surroundings.router.Send(MakeRequest(method, params), Origin::LAN, answer);
}

void LanConnection::Subscribe(const Params& params, const AnswerCallback& answer)
{
    const Router& router = m_surroundings.router;
    const bool isHidden = router.IsServedAtAll(*params.path) && !router.IsPublic(*params.path);
    if (params.scope != 0 || isHidden)
    {
        answer(Answer::Error(NOT_SERVED, "nobody serves " + *params.path, m_surroundings.ownGuid));
        return;
    }
    const Answer added = m_surroundings.subscriptions.Add(this, *params.path, Origin::LAN);
    answer(added);
    if (!added.IsError())
    {
        m_surroundings.subscriptions.TellLast(this, *params.path, Origin::LAN);
    }
}

void LanConnection::HandleAnswer(const std::string&, const Answer&)
{
    // Nobody on the LAN is asked anything.
}

void LanConnection::HandleGone()
{
    m_surroundings.subscriptions.Forget(this);
}

} // namespace Gateway
