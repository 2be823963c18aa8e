#include "platform/portico/ResponseSender.h"

#include "jsonrpc/Frame.h"
#include "platform/portico/GatewaySession.h"
#include <PorticoClientIF.h>

#include <utility>

namespace Portico
{

ResponseSender::ResponseSender(std::weak_ptr<GatewaySession> session, NotifyTargetTaskIF* io, std::uint64_t epoch,
                               std::string id)
    : m_session(std::move(session))
    , m_io(io)
    , m_epoch(epoch)
    , m_id(std::move(id))
{
}

void ResponseSender::Respond(const google::protobuf::Message& message)
{
    Send(message, &JsonRpc::Answer::Result);
}

void ResponseSender::Fail(const google::protobuf::Message& error)
{
    Send(error, &JsonRpc::AnswerFromRecord);
}

void ResponseSender::Fail(const char* text)
{
    if (!m_isAnswered.exchange(true))
    {
        Post(JsonRpc::Answer::Error(0, text, {}, kSubcodeMarkup));
    }
}

void ResponseSender::Send(const google::protobuf::Message& message,
                          const std::function<JsonRpc::Answer(std::string)>& answerFromText)
{
    if (m_isAnswered.exchange(true))
    {
        return;
    }
    try
    {
        Post(answerFromText(ProtoToMarkup::ToJson(message, true, false, false)));
    }
    catch (const ProtoToMarkup::MarkupError& failure)
    {
        Post(JsonRpc::Answer::Error(0, failure.what(), {}, kSubcodeMarkup));
    }
}

void ResponseSender::Post(JsonRpc::Answer answer)
{
    GatewaySession::Post(m_io, m_session,
                         [epoch = m_epoch, id = m_id, sent = std::move(answer)](GatewaySession& session)
                         { session.Reply(epoch, id, sent); });
}

} // namespace Portico
