#include "ssdp/RefusalLog.h"

#include <algorithm>

namespace SonarixService
{

void RefusalLog::Add(std::string_view reason)
{
    const auto found = m_counts.find(reason);
    if (found != m_counts.end())
    {
        ++found->second;
    }
    else
    {
        m_counts.emplace(reason, 1);
    }
}

std::uint64_t RefusalLog::Count(std::string_view reason) const
{
    const auto found = m_counts.find(reason);
    return found != m_counts.end() ? found->second : 0;
}

bool RefusalLog::MayLog(IPv4 sender, std::string_view reason, std::int64_t nowMs)
{
    const auto isOver = [nowMs](const auto& logged) { return nowMs - logged.second >= kLogIntervalMs; };
    if (m_logged.size() >= kMaxLoggedSenders && !m_logged.contains(sender))
    {
        std::erase_if(m_logged,
                      [&isOver](const auto& row) { return std::all_of(row.second.begin(), row.second.end(), isOver); });
        if (m_logged.size() >= kMaxLoggedSenders)
        {
            return false;
        }
    }
    ByReason<std::int64_t>& logged = m_logged[sender];
    const auto found = logged.find(reason);
    if (found != logged.end() && !isOver(*found))
    {
        return false;
    }
    logged.insert_or_assign(std::string(reason), nowMs);
    return true;
}

} // namespace SonarixService
