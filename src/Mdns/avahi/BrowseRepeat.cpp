#include "Mdns/avahi/BrowseRepeat.h"

#include <utility>

namespace MDNS
{

void BrowseRepeat::Begin(std::int64_t nowMs)
{
    *this = {};
    m_state = State::FIRST;
    m_beginMs = nowMs;
}

void BrowseRepeat::AllForNow()
{
    if (m_state == State::FIRST)
    {
        *this = {};
    }
}

bool BrowseRepeat::Add(const ServiceId& id)
{
    switch (m_state)
    {
    case State::FIRST:
        m_reported.insert(id);
        return true;
    case State::SECOND:
        if (auto reported = m_reported.extract(id))
        {
            m_confirmed.insert(std::move(reported));
        }
        else if (!m_confirmed.contains(id))
        {
            m_new.insert(id);
        }
        return false;
    default:
        return true;
    }
}

bool BrowseRepeat::Remove(const ServiceId& id)
{
    m_reported.erase(id);
    m_confirmed.erase(id);
    return m_new.erase(id) == 0;
}

BrowseRepeat::Changes BrowseRepeat::TakeChanges()
{
    if (m_state != State::SECOND)
    {
        return {};
    }
    Changes changes{std::exchange(m_reported, {}), std::exchange(m_new, {})};
    *this = {};
    return changes;
}

std::optional<std::int64_t> BrowseRepeat::NextMs() const
{
    if (m_state == State::FIRST && m_reported.size() >= kMany)
    {
        return m_beginMs + kEndMs;
    }
    return m_state == State::BETWEEN ? std::optional(m_beginMs + kBrowseMs) : std::nullopt;
}

BrowseRepeat::Step BrowseRepeat::Due(std::int64_t nowMs)
{
    if (m_state == State::FIRST && nowMs <= m_beginMs + kTooLateMs)
    {
        m_state = State::BETWEEN;
        return Step::END_BROWSE;
    }
    if (m_state == State::BETWEEN)
    {
        m_state = State::SECOND;
        return Step::BROWSE;
    }
    *this = {};
    return Step::NOTHING;
}

} // namespace MDNS
