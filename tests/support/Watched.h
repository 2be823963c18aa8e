#pragma once

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <utility>

/// A value that tasks change and a test waits for, without polling.
///
///     Watched<int> answers;
///     ... on a task:  answers.Change([](int& count) { ++count; });
///     ... in a test:  EXPECT_TRUE(answers.WaitUntil([](int count) { return count == 3; }));
template <class T>
class Watched final
{
public:
    Watched() = default;
    explicit Watched(T value)
        : m_value(std::move(value))
    {
    }
    Watched(const Watched&) = delete;
    Watched& operator=(const Watched&) = delete;

    template <class Function>
    void Change(Function function)
    {
        const std::lock_guard lock(m_mutex);
        function(m_value);
        m_changed.notify_all();
    }

    void Set(T value)
    {
        Change([&value](T& current) { current = std::move(value); });
    }

    T Get() const
    {
        const std::lock_guard lock(m_mutex);
        return m_value;
    }

    /// Default limit; reached only by a failing test.
    static constexpr std::chrono::seconds kPatience{60};

    /// True as soon as `condition` holds, false after `limit`.
    template <class Condition>
    bool WaitUntil(Condition condition, std::chrono::milliseconds limit = kPatience) const
    {
        std::unique_lock lock(m_mutex);
        return m_changed.wait_for(lock, limit, [&] { return condition(std::as_const(m_value)); });
    }

    bool WaitFor(const T& value, std::chrono::milliseconds limit = kPatience) const
    {
        return WaitUntil([&value](const T& current) { return current == value; }, limit);
    }

private:
    mutable std::mutex m_mutex;
    mutable std::condition_variable m_changed;
    T m_value{};
};
