#pragma once

#include "tests/support/Watched.h"

#include <algorithm>
#include <deque>
#include <optional>

/// A queue from callbacks on other threads to the test, which takes the first value or the first that matches.
template <class T>
class Inbox final
{
public:
    void Put(const T& value)
    {
        m_values.Change([&](auto& all) { all.push_back(value); });
    }

    /// Removes and returns the first value; nullopt after `limit`.
    std::optional<T> Take(std::chrono::milliseconds limit = Watched<T>::kPatience)
    {
        return TakeFirst([](const T&) { return true; }, limit);
    }
    template <class Matches>
    std::optional<T> TakeFirst(Matches matches, std::chrono::milliseconds limit = Watched<T>::kPatience)
    {
        std::optional<T> taken;
        if (Has(matches, limit))
        {
            m_values.Change(
                [&](auto& all)
                {
                    const auto found = std::find_if(all.begin(), all.end(), matches);
                    taken = *found;
                    all.erase(found);
                });
        }
        return taken;
    }

    /// True if a matching value is in the queue or arrives within `limit`. Does not remove it.
    template <class Matches>
    bool Has(Matches matches, std::chrono::milliseconds limit) const
    {
        return m_values.WaitUntil([&](const auto& all) { return std::any_of(all.begin(), all.end(), matches); }, limit);
    }
    bool IsEmpty() const
    {
        return m_values.Get().empty();
    }

private:
    Watched<std::deque<T>> m_values;
};
