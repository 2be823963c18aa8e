#include "platform/portico/RequestQueue.h"

#include <algorithm>
#include <utility>

namespace Portico
{

RequestQueue::RequestQueue(NotifyTargetTaskIF* task, std::string guid)
    : m_guid(std::move(guid))
    , m_pending(task, m_guid, kMaxRequests)
{
}

void RequestQueue::Add(const std::string& method, const std::string& params, const Send& send,
                       const JsonRpc::AnswerCallback& done, std::size_t maxFrameBytes, const void* owner)
{
    const auto refusal = [this](int code, const char* text) { return JsonRpc::Answer::Error(code, text, m_guid); };
    const std::optional<std::string> id = m_pending.Add(send ? kAnswerLimit : kConnectLimit, done);
    if (!id)
    {
        done(refusal(JsonRpc::UNREACHABLE, "too many requests wait for an answer"));
        return;
    }
    std::string frame = JsonRpc::TextFromCall(*id, method, params);
    if (frame.size() > maxFrameBytes)
    {
        m_pending.Finish(*id, refusal(JsonRpc::TOO_LARGE, "the request is larger than 4 MiB"));
        return;
    }
    if (send)
    {
        send(std::move(frame));
        return;
    }
    if (m_waitingBytes + frame.size() > kMaxWaitingBytes)
    {
        EraseWaiting([this](const Waiting& each) { return !m_pending.Contains(each.id); });
    }
    if (m_waitingBytes + frame.size() > kMaxWaitingBytes)
    {
        m_pending.Finish(*id, refusal(JsonRpc::UNREACHABLE, "too many requests wait for an answer"));
        return;
    }
    m_waitingBytes += frame.size();
    m_waiting.push_back({*id, std::move(frame), owner});
}

void RequestQueue::SendWaiting(const Send& send)
{
    m_waitingBytes = 0;
    for (Waiting& each : std::exchange(m_waiting, {})) // sending may end the connection, and with it the requests
    {
        if (m_pending.Contains(each.id))
        {
            m_pending.SetLimit(each.id, kAnswerLimit);
            send(std::move(each.frame));
        }
    }
}

void RequestQueue::Finish(const std::string& id, const JsonRpc::Answer& answer)
{
    if (std::none_of(m_waiting.begin(), m_waiting.end(), [&id](const Waiting& each) { return each.id == id; }))
    {
        m_pending.Finish(id, answer);
    }
}

void RequestQueue::FailAll(const JsonRpc::Answer& answer)
{
    m_waiting.clear();
    m_waitingBytes = 0;
    m_pending.FailAll(answer);
}

void RequestQueue::Remove(const void* owner)
{
    EraseWaiting(
        [this, owner](const Waiting& each)
        {
            if (each.owner == owner)
            {
                m_pending.Remove(each.id);
            }
            return each.owner == owner;
        });
}

void RequestQueue::EraseWaiting(const std::function<bool(const Waiting&)>& isUnwanted)
{
    std::erase_if(m_waiting,
                  [&](const Waiting& each)
                  {
                      const bool isErased = isUnwanted(each);
                      m_waitingBytes -= isErased ? each.frame.size() : 0;
                      return isErased;
                  });
}

} // namespace Portico
