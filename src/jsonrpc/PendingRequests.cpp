#include "jsonrpc/PendingRequests.h"

#include "runtime/MonotonicClock.h"
#include "runtime/TaskCheck.h"

#include <algorithm>
#include <charconv>
#include <vector>

namespace JsonRpc
{
namespace
{

/// Returns 0, which is the id of no request, if `id` is not a number.
std::uint64_t NumberFromId(const std::string& id)
{
    std::uint64_t number = 0;
    const auto [end, error] = std::from_chars(id.data(), id.data() + id.size(), number);
    return error == std::errc() && end == id.data() + id.size() ? number : 0;
}

} // namespace

PendingRequests::PendingRequests(NotifyTargetTaskIF* task, std::string guid, std::size_t maxPending)
    : m_task(task)
    , m_guid(std::move(guid))
    , m_maxPending(maxPending)
    , m_timer("PendingRequests", task)
{
}

std::optional<std::string> PendingRequests::Add(std::chrono::milliseconds limit, AnswerCallback callback)
{
    TASK_CHECK(m_task);
    if (m_entries.size() >= m_maxPending)
    {
        return std::nullopt;
    }
    const std::uint64_t id = ++m_lastId;
    const std::int64_t deadline = MonotonicClock::NowMs() + limit.count();
    m_entries[id] = Entry{deadline, std::move(callback)};
    m_deadlines.emplace(deadline, id);
    StartTimer();
    return std::to_string(id);
}

void PendingRequests::SetLimit(const std::string& id, std::chrono::milliseconds limit)
{
    if (const auto found = m_entries.find(NumberFromId(id)); found != m_entries.end())
    {
        m_deadlines.erase({found->second.deadlineMs, found->first});
        found->second.deadlineMs = MonotonicClock::NowMs() + limit.count();
        m_deadlines.emplace(found->second.deadlineMs, found->first);
        StartTimer();
    }
}

void PendingRequests::Finish(const std::string& id, const Answer& answer)
{
    TASK_CHECK(m_task);
    if (const auto found = m_entries.find(NumberFromId(id)); found != m_entries.end())
    {
        Take(found)(answer);
    }
}

void PendingRequests::FailAll(const Answer& answer)
{
    TASK_CHECK(m_task);
    const Entries entries = std::exchange(m_entries, {});
    m_deadlines.clear();
    for (const auto& [id, entry] : entries)
    {
        entry.callback(answer);
    }
}

void PendingRequests::Remove(const std::string& id)
{
    if (const auto found = m_entries.find(NumberFromId(id)); found != m_entries.end())
    {
        Take(found);
    }
}

bool PendingRequests::Contains(const std::string& id) const
{
    return m_entries.count(NumberFromId(id)) != 0;
}

AnswerCallback PendingRequests::Take(Entries::iterator entry)
{
    AnswerCallback callback = std::move(entry->second.callback);
    m_deadlines.erase({entry->second.deadlineMs, entry->first});
    m_entries.erase(entry);
    return callback;
}

void PendingRequests::StartTimer()
{
    // An answer does not move the timer, because nearly all requests are answered long before their deadline.
    const std::int64_t next = m_deadlines.empty() ? 0 : m_deadlines.begin()->first;
    if (next == 0 || (m_timerDeadlineMs != 0 && m_timerDeadlineMs <= next))
    {
        return;
    }
    m_timerDeadlineMs = next;
    m_timer.PostIn(static_cast<unsigned int>(std::max<std::int64_t>(0, next - MonotonicClock::NowMs())),
                   [this] { HandleTimer(); });
}

void PendingRequests::HandleTimer()
{
    TASK_CHECK(m_task);
    m_timerDeadlineMs = 0;
    const std::int64_t now = MonotonicClock::NowMs();
    std::vector<AnswerCallback> late;
    while (!m_deadlines.empty() && m_deadlines.begin()->first <= now)
    {
        late.push_back(Take(m_entries.find(m_deadlines.begin()->second)));
    }
    StartTimer();
    const Answer answer = Answer::Error(NO_ANSWER, "no answer in time", m_guid);
    for (const AnswerCallback& callback : late)
    {
        callback(answer);
    }
}

} // namespace JsonRpc
