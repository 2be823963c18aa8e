#pragma once

#include "runtime/AsyncCallback.h"

#include <memory>
#include <utility>

/// Prevents pending callbacks from accessing a destroyed object. A member of the object, declared last, so that it is
/// destroyed first.
///
/// Which of three forms to use if a callback may come after the object's destruction:
/// 1. The object is destroyed on the callback's task, or after that task has ended: OnTask() and Guard(). They test
///    a token and do nothing once the object is destroyed.
/// 2. The object is shared and may be destroyed on any thread: Weakly(). It holds the object during the call.
/// 3. A documented shutdown order ends the task before the object, or the callback keeps the object alive: a plain
///    AsyncCallback on `this` or on a shared pointer.
class Liveness final
{
public:
    Liveness() = default;
    Liveness(const Liveness&) = delete;
    Liveness& operator=(const Liveness&) = delete;

    /// Calls `function` only while the object exists. For callbacks that already run on the object's task.
    template <class Function>
    auto Guard(Function function) const
    {
        return [token = std::weak_ptr<const bool>(m_token), function = std::move(function)](auto&&... args) mutable
        {
            if (!token.expired())
            {
                function(std::forward<decltype(args)>(args)...);
            }
        };
    }

    /// `function` as an AsyncCallback on `task`, called only while the object exists.
    template <class... Args, class Function>
    AsyncCallback<Args...> OnTask(NotifyTargetTaskIF* task, Function function) const
    {
        return AsyncCallback<Args...>(Guard(std::move(function)), task);
    }

    /// A member function of the object as an AsyncCallback on `task`.
    template <class Owner, class... Args>
    AsyncCallback<Args...> OnTask(NotifyTargetTaskIF* task, Owner* owner, void (Owner::*method)(const Args&...)) const
    {
        return OnTask<Args...>(task, [owner, method](const Args&... args) { (owner->*method)(args...); });
    }

    /// Calls `function` with the object as its first argument, and holds the object during the call. Does nothing
    /// once the object is destroyed.
    template <class Owner, class Function>
    static auto Weakly(const std::shared_ptr<Owner>& owner, Function function)
    {
        return [weak = std::weak_ptr<Owner>(owner), function = std::move(function)](auto&&... args) mutable
        {
            if (const std::shared_ptr<Owner> held = weak.lock())
            {
                function(*held, std::forward<decltype(args)>(args)...);
            }
        };
    }

private:
    const std::shared_ptr<const bool> m_token = std::make_shared<const bool>(true);
};
