#include "platform/portico/PendingCalls.h"

#include "runtime/MonotonicClock.h"

#include <algorithm>
#include <charconv>
#include <utility>
#include <vector>

namespace Portico
{

PendingCalls::PendingCalls(NotifyTargetTaskIF* task, std::function<std::string()> onTimeout)
    : m_onTimeout(std::move(onTimeout))
    , m_timer("PorticoClientCalls", task)
{
}

bool PendingCalls::Add(const MakeFrame& makeFrame, const Send& send, Done done, const void* owner)
{
    if (m_calls.size() >= kMaxCalls)
    {
        return false;
    }
    const std::uint64_t id = NextId();
    std::string frame = makeFrame(id);
    if (!send && m_waitingBytes + frame.size() > kMaxWaitingBytes)
    {
        return false;
    }
    m_lastId = id;
    Call& call = m_calls[id];
    call.done = std::move(done);
    call.owner = owner;
    call.deadlineMs = MonotonicClock::NowMs() + (send ? kAnswerLimit : kConnectLimit).count();
    if (send)
    {
        send(std::move(frame));
    }
    else
    {
        m_waitingBytes += frame.size();
        call.waiting = std::move(frame);
    }
    ArmTimer();
    return true;
}

void PendingCalls::SendWaiting(const Send& send)
{
    std::vector<std::string> frames; // sending may end the connection, and with it the calls
    for (auto& [id, call] : m_calls)
    {
        if (!call.waiting.empty())
        {
            call.deadlineMs = MonotonicClock::NowMs() + kAnswerLimit.count();
            frames.push_back(std::exchange(call.waiting, {}));
        }
    }
    m_waitingBytes = 0;
    for (std::string& frame : frames)
    {
        send(std::move(frame));
    }
}

void PendingCalls::Answer(const std::string& id, const std::string& body, const std::string& errorBody)
{
    std::uint64_t number = 0;
    std::from_chars(id.data(), id.data() + id.size(), number);
    const auto found = m_calls.find(number);
    if (found == m_calls.end() || !found->second.waiting.empty())
    {
        return;
    }
    const Done done = std::move(found->second.done);
    m_calls.erase(found);
    done(body, errorBody);
}

void PendingCalls::FailAll(const std::string& errorBody)
{
    const std::map<std::uint64_t, Call> calls = std::exchange(m_calls, {});
    m_waitingBytes = 0;
    for (const auto& [id, call] : calls)
    {
        call.done({}, errorBody);
    }
}

void PendingCalls::Drop(const void* owner)
{
    for (auto call = m_calls.begin(); call != m_calls.end();)
    {
        if (call->second.owner != owner)
        {
            ++call;
            continue;
        }
        m_waitingBytes -= call->second.waiting.size();
        call = m_calls.erase(call);
    }
}

void PendingCalls::Clear()
{
    m_calls.clear();
    m_waitingBytes = 0;
    m_timer.Cancel();
    m_armedForMs = 0;
}

void PendingCalls::ArmTimer()
{
    std::int64_t earliest = 0;
    for (const auto& [id, call] : m_calls)
    {
        earliest = earliest == 0 ? call.deadlineMs : std::min(earliest, call.deadlineMs);
    }
    // A timer that runs too early finds nothing and is armed anew: most calls are answered long before.
    if (earliest == 0 || (m_armedForMs != 0 && m_armedForMs <= earliest))
    {
        return;
    }
    m_armedForMs = earliest;
    const std::int64_t left = std::max<std::int64_t>(earliest - MonotonicClock::NowMs(), 0);
    m_timer.PostIn(static_cast<unsigned int>(left), [this] { HandleTimer(); });
}

void PendingCalls::HandleTimer()
{
    m_armedForMs = 0;
    const std::int64_t now = MonotonicClock::NowMs();
    std::vector<Done> late;
    for (auto call = m_calls.begin(); call != m_calls.end();)
    {
        if (call->second.deadlineMs > now)
        {
            ++call;
            continue;
        }
        m_waitingBytes -= call->second.waiting.size();
        late.push_back(std::move(call->second.done));
        call = m_calls.erase(call);
    }
    ArmTimer();
    for (const Done& done : late)
    {
        done({}, m_onTimeout());
    }
}

} // namespace Portico
