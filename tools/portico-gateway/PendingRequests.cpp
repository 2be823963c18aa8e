#include "tools/portico-gateway/PendingRequests.h"

#include "runtime/MonotonicClock.h"

#include <algorithm>
#include <charconv>
#include <vector>

namespace Gateway
{

PendingRequests::PendingRequests(NotifyTargetTaskIF* task, std::string guid)
    : m_guid(std::move(guid))
    , m_timer("PorticoGatewayRequests", task)
{
}

std::optional<std::string> PendingRequests::Add(std::chrono::milliseconds limit, AnswerCallback callback)
{
    if (m_entries.size() >= kMaxPending)
    {
        return std::nullopt;
    }
    const std::uint64_t id = ++m_lastId;
    const std::int64_t deadline = MonotonicClock::NowMs() + limit.count();
    m_entries[id] = Entry{deadline, std::move(callback)};
    m_deadlines.emplace(deadline, id);
    Arm();
    return std::to_string(id);
}

void PendingRequests::Take(const std::string& id, const Answer& answer)
{
    std::uint64_t number = 0;
    const auto [end, error] = std::from_chars(id.data(), id.data() + id.size(), number);
    const auto found = m_entries.find(number);
    if (error != std::errc() || end != id.data() + id.size() || found == m_entries.end())
    {
        return;
    }
    const AnswerCallback callback = std::move(found->second.callback);
    m_deadlines.erase({found->second.deadlineMs, number});
    m_entries.erase(found);
    callback(answer);
}

void PendingRequests::FailAll(const Answer& answer)
{
    const std::map<std::uint64_t, Entry> entries = std::exchange(m_entries, {});
    m_deadlines.clear();
    for (const auto& [id, entry] : entries)
    {
        entry.callback(answer);
    }
}

void PendingRequests::Arm()
{
    // A timer that rings too early is armed again then: nearly all requests are answered long before.
    const std::int64_t next = m_deadlines.empty() ? 0 : m_deadlines.begin()->first;
    if (next == 0 || (m_armedFor != 0 && m_armedFor <= next))
    {
        return;
    }
    m_armedFor = next;
    m_timer.PostIn(static_cast<unsigned int>(std::max<std::int64_t>(0, next - MonotonicClock::NowMs())),
                   [this] { Expire(); });
}

void PendingRequests::Expire()
{
    m_armedFor = 0;
    const std::int64_t now = MonotonicClock::NowMs();
    std::vector<AnswerCallback> late;
    while (!m_deadlines.empty() && m_deadlines.begin()->first <= now)
    {
        const auto found = m_entries.find(m_deadlines.begin()->second);
        late.push_back(std::move(found->second.callback));
        m_entries.erase(found);
        m_deadlines.erase(m_deadlines.begin());
    }
    Arm();
    const Answer answer = Answer::Error(NO_ANSWER, "no answer in time", m_guid);
    for (const AnswerCallback& callback : late)
    {
        callback(answer);
    }
}

} // namespace Gateway
