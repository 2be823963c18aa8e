#pragma once

#include "runtime/AsyncCallback.h"

#include <memory>
#include <utility>

/// Keeps callbacks that are still on their way from touching an object that has been destroyed. A member of the
/// object, declared last, so that it is destroyed first.
///
/// Which of three forms to use, where a callback that the object gave away can come after the object's end:
/// 1. The object is destroyed on the callback's task, or after that task has ended: OnTask() and Guard(). They test
///    the token and touch nothing once it is gone.
/// 2. The object is shared and may be destroyed on any thread: Weakly(). It holds the object during the call.
/// 3. A described order of stopping ends the task before the object, or the object is kept alive by its own callback:
///    a plain AsyncCallback on `this` or on a shared pointer.
class Liveness final
{
public:
    Liveness() = default;
    Liveness(const Liveness&) = delete;
    Liveness& operator=(const Liveness&) = delete;

    /// `function`, called only while the object lives. For callbacks that already run on the object's task.
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

    /// `function` as an AsyncCallback on `task`, called only while the object lives.
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

    /// Calls `function` with the object in front of the arguments, and holds the object meanwhile; does nothing once
    /// the object is gone.
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
