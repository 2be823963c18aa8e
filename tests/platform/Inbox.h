#pragma once

#include <chrono>
#include <condition_variable>
#include <deque>
#include <mutex>
#include <optional>
#include <utility>

/// What callbacks on other threads put, for the test to take in order.
template <class T>
class Inbox
{
public:
    void Put(T value)
    {
        const std::scoped_lock lock(m_mutex);
        m_values.push_back(std::move(value));
        m_changed.notify_all();
    }

    /// Nothing after `limit`.
    std::optional<T> Take(std::chrono::milliseconds limit = std::chrono::seconds(10))
    {
        std::unique_lock lock(m_mutex);
        if (!m_changed.wait_for(lock, limit, [this] { return !m_values.empty(); }))
        {
            return std::nullopt;
        }
        T value = std::move(m_values.front());
        m_values.pop_front();
        return value;
    }

    bool IsEmpty() const
    {
        const std::scoped_lock lock(m_mutex);
        return m_values.empty();
    }

private:
    mutable std::mutex m_mutex;
    std::condition_variable m_changed;
    std::deque<T> m_values;
};
