#include "tools/portico-gateway/ClientConnection.h"

#include "runtime/DPrint.h"
#include "runtime/Liveness.h"
#include "runtime/TaskCheck.h"
#include "websocket/WebSocket.h"

#include <utility>

namespace Gateway
{
namespace
{

const DPrint s_log("PorticoGateway");

/// Limit of service names and guids, which appear in log lines.
constexpr std::size_t kMaxNameBytes = 256;

} // namespace

ClientConnection::ClientConnection(const GatewayContext& context, std::shared_ptr<WebSocket::Connection> connection,
                                   std::size_t maxRequests)
    : m_context(context)
    , m_connection(std::move(connection))
    , m_maxRequests(maxRequests)
{
}

ClientConnection::~ClientConnection() = default;

void ClientConnection::Start(GoneCallback gone)
{
    TASK_CHECK(m_context.task);
    m_gone = std::move(gone);
    // This object owns the connection. A destroyed connection calls no handler.
    m_connection->SetHandlers({nullptr, [this](const std::string& text) { HandleMessage(text); },
                               [this](const std::string& reason)
                               {
                                   DPRINTF(s_log, DPrint::LEVEL_DEBUG, "a client disconnected: %s", reason.c_str());
                                   HandleGone();
                                   m_gone(this);
                               },
                               [this] { m_context.subscriptions.SendMissed(this); }});
}

void ClientConnection::Send(const std::string& frame)
{
    TASK_CHECK(m_context.task);
    m_connection->Send(frame);
}

bool ClientConnection::HasRoomFor(std::size_t bytes) const
{
    return m_connection->HasRoomFor(bytes);
}

void ClientConnection::HandleMessage(const std::string& text)
{
    TASK_CHECK(m_context.task);
    const JsonRpc::Frame frame = JsonRpc::FrameFromText(text);
    switch (frame.kind)
    {
    case JsonRpc::Frame::Kind::INVALID:
        m_connection->Send(JsonRpc::TextFromAnswer(frame.id.value_or("null"), frame.answer));
        break;
    case JsonRpc::Frame::Kind::ANSWER:
        HandleAnswer(frame.id.value_or("null"), frame.answer);
        break;
    case JsonRpc::Frame::Kind::CALL:
        HandleFrame(frame, MakeAnswer(frame));
        break;
    }
}

JsonRpc::AnswerCallback ClientConnection::MakeAnswer(const JsonRpc::Frame& frame)
{
    ++m_requests;
    return Liveness::Weakly(shared_from_this(),
                            [id = frame.id](ClientConnection& self, const JsonRpc::Answer& answer)
                            {
                                --self.m_requests;
                                if (id) // a notification is not answered
                                {
                                    self.m_connection->Send(JsonRpc::TextFromAnswer(*id, answer));
                                }
                            });
}

void ClientConnection::HandleFrame(const JsonRpc::Frame& frame, const JsonRpc::AnswerCallback& answer)
{
    if (!frame.params.malformed.empty())
    {
        Fail(answer, JsonRpc::INVALID_PARAMS, "malformed: " + frame.params.malformed);
    }
    else if (m_requests > m_maxRequests)
    {
        Fail(answer, JsonRpc::UNREACHABLE, "too many requests wait for their answers");
    }
    else if (frame.method == "open")
    {
        if (m_isOpen)
        {
            Fail(answer, JsonRpc::INVALID_REQUEST, "the connection is open already");
            return;
        }
        const bool isNamed = frame.params.service && frame.params.service->size() <= kMaxNameBytes &&
                             frame.params.guid.size() <= kMaxNameBytes;
        if (!isNamed)
        {
            Fail(answer, JsonRpc::INVALID_PARAMS, "no service, or one with too long a name");
            return;
        }
        Open(frame.params,
             [this, answer](const JsonRpc::Answer& opened)
             {
                 m_isOpen = !opened.IsError();
                 answer(opened);
             });
    }
    else if (!m_isOpen)
    {
        Fail(answer, JsonRpc::INVALID_REQUEST, "open comes first");
    }
    else
    {
        HandleCall(frame.method, frame.params, answer);
    }
}

bool ClientConnection::HasPath(const JsonRpc::Params& params, const JsonRpc::AnswerCallback& answer)
{
    if (!params.path)
    {
        answer(JsonRpc::Answer::Error(JsonRpc::INVALID_PARAMS, "no path", {}));
    }
    return params.path.has_value();
}

void ClientConnection::Fail(const JsonRpc::AnswerCallback& answer, int code, const std::string& message) const
{
    answer(JsonRpc::Answer::Error(code, message, m_context.ownGuid));
}

void ClientConnection::AddSubscription(const std::string& path, Origin origin, const JsonRpc::AnswerCallback& answer)
{
    const JsonRpc::Answer added = m_context.subscriptions.Add(this, path, origin);
    answer(added);
    if (!added.IsError())
    {
        m_context.subscriptions.SendLast(this, path, origin);
    }
}

JsonRpc::Request ClientConnection::MakeRequest(const std::string& verb, const JsonRpc::Params& params)
{
    return {verb, *params.path, params.version, params.body};
}

} // namespace Gateway
