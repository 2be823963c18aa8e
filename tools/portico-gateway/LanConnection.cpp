#include "tools/portico-gateway/LanConnection.h"

#include "runtime/DPrint.h"
#include "runtime/TaskCheck.h"
#include "websocket/WebSocket.h"

#include <utility>

namespace Gateway
{
namespace
{

const DPrint s_log("PorticoGateway");

} // namespace

LanConnection::LanConnection(const GatewayContext& context, std::shared_ptr<WebSocket::Connection> connection)
    : ClientConnection(context, std::move(connection), kMaxRequests)
{
}

LanConnection::~LanConnection() = default;

void LanConnection::Open(const JsonRpc::Params& params, const JsonRpc::AnswerCallback& answer)
{
    if (!params.guid.empty())
    {
        Fail(answer, JsonRpc::INVALID_PARAMS, "no product is reached through another");
        return;
    }
    DPRINTF(s_log, DPrint::LEVEL_DEBUG, "%s: open from %s %s", params.service->c_str(),
            m_connection->PeerAddress().c_str(), m_connection->PeerName().c_str());
    answer(JsonRpc::Answer::Empty());
}

void LanConnection::HandleCall(const std::string& method, const JsonRpc::Params& params,
                               const JsonRpc::AnswerCallback& answer)
{
    TASK_CHECK(m_context.task);
    if (!JsonRpc::IsVerb(method) && method != "subscribe")
    {
        Fail(answer, JsonRpc::METHOD_NOT_FOUND, method + " is not for other products");
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
    if (method != "get" && m_context.router.IsPublic(*params.path))
    {
        Fail(answer, JsonRpc::WRONG_VERB, "other products only get and subscribe");
        return;
    }
    if (method != "get")
    {
        Fail(answer, JsonRpc::NOT_SERVED, "nobody serves " + *params.path);
        return;
    }
    m_context.router.Send(MakeRequest(method, params), Origin::LAN, answer);
}

void LanConnection::Subscribe(const JsonRpc::Params& params, const JsonRpc::AnswerCallback& answer)
{
    const bool isHidden = m_context.router.HasServer(*params.path) && !m_context.router.IsPublic(*params.path);
    if (params.scope != 0 || isHidden)
    {
        Fail(answer, JsonRpc::NOT_SERVED, "nobody serves " + *params.path);
        return;
    }
    AddSubscription(*params.path, Origin::LAN, answer);
}

void LanConnection::HandleAnswer(const std::string&, const JsonRpc::Answer&)
{
    // LAN clients get no requests.
}

void LanConnection::HandleGone()
{
    TASK_CHECK(m_context.task);
    m_context.subscriptions.Forget(this);
}

} // namespace Gateway
