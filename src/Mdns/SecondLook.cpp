#include "Mdns/SecondLook.h"

#include <utility>

namespace MDNS
{

void SecondLook::Begin(std::int64_t nowMs)
{
    *this = {};
    m_state = State::FIRST;
    m_beginMs = nowMs;
}

void SecondLook::AllForNow()
{
    if (m_state == State::FIRST)
    {
        *this = {};
    }
}

bool SecondLook::IsNews(const ServiceId& id)
{
    switch (m_state)
    {
    case State::FIRST:
        m_told.insert(id);
        return true;
    case State::SECOND:
        if (auto told = m_told.extract(id))
        {
            m_again.insert(std::move(told));
        }
        else if (!m_again.contains(id))
        {
            m_held.insert(id);
        }
        return false;
    default:
        return true;
    }
}

bool SecondLook::IsTold(const ServiceId& id)
{
    m_told.erase(id);
    m_again.erase(id);
    return m_held.erase(id) == 0;
}

SecondLook::Changes SecondLook::TakeChanges()
{
    if (m_state != State::SECOND)
    {
        return {};
    }
    Changes changes{std::exchange(m_told, {}), std::exchange(m_held, {})};
    *this = {};
    return changes;
}

std::optional<std::int64_t> SecondLook::NextMs() const
{
    if (m_state == State::FIRST && m_told.size() >= kMany)
    {
        return m_beginMs + kEndMs;
    }
    return m_state == State::BETWEEN ? std::optional(m_beginMs + kBrowseMs) : std::nullopt;
}

SecondLook::Step SecondLook::Due(std::int64_t nowMs)
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
