#pragma once

#include <cstddef>
#include <functional>
#include <type_traits>
#include <utility>

/// A callable that may be empty. Calling an empty one does nothing, so every response or error callback is optional.
/// Runs on the calling thread; to run on a task, construct it from an AsyncCallback. A value: copies are independent.
template <class... Args>
class Callback
{
public:
    Callback() = default;
    Callback(std::nullptr_t) {}

    template <class F>
    requires(!std::is_base_of_v<Callback, std::remove_cvref_t<F>> && std::is_invocable_v<F&, const Args&...>)
        Callback(F&& function) // NOLINT(bugprone-forwarding-reference-overload): the constraint keeps copies out
        : m_function(std::forward<F>(function))
    {
    }

    void operator()(const Args&... args) const
    {
        if (m_function)
        {
            m_function(args...);
        }
    }

    explicit operator bool() const
    {
        return static_cast<bool>(m_function);
    }

    /// Destroys the held callable; the Callback is empty then.
    void Clear()
    {
        m_function = nullptr;
    }

private:
    std::function<void(const Args&...)> m_function;
};

/// A callback without arguments; converts from and to Callback<>.
template <>
class Callback<void> : public Callback<>
{
public:
    using Callback<>::Callback;
    Callback(const Callback<>& other)
        : Callback<>(other)
    {
    }
};
