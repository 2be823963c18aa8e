#include "platform/portico/Answerer.h"

#include "platform/portico/JsonRpc.h"
#include "platform/portico/Session.h"
#include "runtime/Task.h"
#include <PorticoClientIF.h>

#include <utility>

namespace Portico
{

namespace
{

std::string MarkupFailure(const std::string& id, const char* text)
{
    return JsonRpc::Error(id, JsonRpc::ErrorBody(0, kSubcodeMarkup, text, {}));
}

} // namespace

Answerer::Answerer(std::weak_ptr<Session> session, NotifyTargetTaskIF* io, std::uint64_t epoch, std::string id)
    : m_session(std::move(session))
    , m_io(io)
    , m_epoch(epoch)
    , m_id(std::move(id))
{
}

void Answerer::Respond(const google::protobuf::Message& message)
{
    if (m_isAnswered.exchange(true))
    {
        return;
    }
    try
    {
        Post(JsonRpc::Result(m_id, ProtoToMarkup::ToJson(message, true, false, false)));
    }
    catch (const ProtoToMarkup::MarkupError& failure)
    {
        Post(MarkupFailure(m_id, failure.what()));
    }
}

void Answerer::Fail(const google::protobuf::Message& error)
{
    if (m_isAnswered.exchange(true))
    {
        return;
    }
    try
    {
        Post(JsonRpc::Error(m_id, ProtoToMarkup::ToJson(error, true, false, false)));
    }
    catch (const ProtoToMarkup::MarkupError& failure)
    {
        Post(MarkupFailure(m_id, failure.what()));
    }
}

void Answerer::Fail(const char* text)
{
    if (!m_isAnswered.exchange(true))
    {
        Post(MarkupFailure(m_id, text));
    }
}

void Answerer::Post(std::string frame)
{
    IL::BreakThread(
        [weak = m_session, epoch = m_epoch, id = m_id, text = std::move(frame)]
        {
            if (const std::shared_ptr<Session> session = weak.lock())
            {
                session->Reply(epoch, id, text);
            }
        },
        m_io);
}

} // namespace Portico
