#include "tools/portico-gateway/ClientConnection.h"

#include "runtime/DPrint.h"
#include "websocket/WebSocket.h"

#include <utility>

namespace Gateway
{
namespace
{

const DPrint s_log("PorticoGateway");

/// Names and guids come into log lines.
constexpr std::size_t kMaxNameBytes = 256;

} // namespace

ClientConnection::ClientConnection(const Surroundings& surroundings, std::shared_ptr<WebSocket::Connection> connection,
                                   std::size_t maxRequests)
    : m_surroundings(surroundings)
    , m_connection(std::move(connection))
    , m_maxRequests(maxRequests)
{
}

ClientConnection::~ClientConnection() = default;

void ClientConnection::Start(GoneCallback gone)
{
    m_gone = std::move(gone);
    // The connection dies with this object and calls nobody then.
    m_connection->SetHandlers({nullptr, [this](const std::string& text) { HandleMessage(text); },
                               [this](const std::string& reason)
                               {
                                   DPRINTF(s_log, DPrint::LEVEL_DEBUG, "a client has gone: %s", reason.c_str());
                                   HandleGone();
                                   m_gone(this);
                               },
                               [this] { m_surroundings.subscriptions.CatchUp(this); }});
}

void ClientConnection::Tell(const std::string& frame)
{
    m_connection->Send(frame);
}

bool ClientConnection::HasRoom(std::size_t bytes) const
{
    return m_connection->HasRoomFor(bytes);
}

void ClientConnection::HandleMessage(const std::string& text)
{
    const Frame frame = ParseFrame(text);
    switch (frame.kind)
    {
    case Frame::Kind::INVALID:
        m_connection->Send(AnswerFrame(frame.id.value_or("null"), frame.answer));
        break;
    case Frame::Kind::ANSWER:
        HandleAnswer(frame.id.value_or("null"), frame.answer);
        break;
    case Frame::Kind::CALL:
        HandleFrame(frame, MakeAnswer(frame));
        break;
    }
}

AnswerCallback ClientConnection::MakeAnswer(const Frame& frame)
{
    ++m_requests;
    return [weak = weak_from_this(), id = frame.id](const Answer& answer)
    {
        const std::shared_ptr<ClientConnection> self = weak.lock();
        if (self == nullptr)
        {
            return;
        }
        --self->m_requests;
        if (id) // nobody waits for the answer to a notification
        {
            self->m_connection->Send(AnswerFrame(*id, answer));
        }
    };
}

void ClientConnection::HandleFrame(const Frame& frame, const AnswerCallback& answer)
{
    const std::string& ownGuid = m_surroundings.ownGuid;
    if (!frame.params.malformed.empty())
    {
        answer(Answer::Error(INVALID_PARAMS, "malformed: " + frame.params.malformed, ownGuid));
    }
    else if (m_requests > m_maxRequests)
    {
        answer(Answer::Error(UNREACHABLE, "too many requests wait for their answers", ownGuid));
    }
    else if (frame.method == "open")
    {
        if (m_isOpen)
        {
            answer(Answer::Error(INVALID_REQUEST, "the connection is open already", ownGuid));
            return;
        }
        const bool isNamed = frame.params.service && frame.params.service->size() <= kMaxNameBytes &&
                             frame.params.guid.size() <= kMaxNameBytes;
        if (!isNamed)
        {
            answer(Answer::Error(INVALID_PARAMS, "no service, or one with too long a name", ownGuid));
            return;
        }
        Open(frame.params,
             [this, answer](const Answer& opened)
             {
                 m_isOpen = !opened.IsError();
                 answer(opened);
             });
    }
    else if (!m_isOpen)
    {
        answer(Answer::Error(INVALID_REQUEST, "open comes first", ownGuid));
    }
    else
    {
        HandleCall(frame.method, frame.params, answer);
    }
}

bool ClientConnection::HasPath(const Params& params, const AnswerCallback& answer)
{
    if (!params.path)
    {
        answer(Answer::Error(INVALID_PARAMS, "no path", {}));
    }
    return params.path.has_value();
}

Request ClientConnection::MakeRequest(const std::string& verb, const Params& params)
{
    return {verb, *params.path, params.version, params.body};
}

} // namespace Gateway
