#pragma once

#include "Watched.h"

#include <deque>
#include <optional>

/// What callbacks on other threads put, for the test to take in order.
template <class T>
class Inbox
{
public:
    void Put(const T& value)
    {
        m_values.Change([&](auto& all) { all.push_back(value); });
    }

    /// Nothing after `limit`.
    std::optional<T> Take(std::chrono::milliseconds limit = std::chrono::seconds(10))
    {
        std::optional<T> taken;
        if (m_values.WaitUntil([](const auto& all) { return !all.empty(); }, limit))
        {
            taken = m_values.Get().front();
            m_values.Change([](auto& all) { all.pop_front(); });
        }
        return taken;
    }

    bool IsEmpty() const
    {
        return m_values.Get().empty();
    }

private:
    Watched<std::deque<T>> m_values;
};
