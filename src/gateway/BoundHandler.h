#pragma once

#include "runtime/AsyncCallback.h"

#include <memory>

namespace SonarixService
{

/// Tells handlers that are still in flight whether their object lives; its owner is the object, and goes with it.
using LivenessToken = std::shared_ptr<const bool>;

/// A member function as an AsyncCallback on `task`. An entry that is dispatched after the object's end touches
/// nothing. The object is destroyed on `task`, or after the end of it.
template <class Owner, class... Args>
AsyncCallback<Args...> BindHandler(NotifyTargetTaskIF* task, Owner* owner, const LivenessToken& alive,
                                   void (Owner::*handler)(const Args&...))
{
    return AsyncCallback<Args...>(
        [owner, token = std::weak_ptr<const bool>(alive), handler](const Args&... args)
        {
            if (!token.expired())
            {
                (owner->*handler)(args...);
            }
        },
        task);
}

} // namespace SonarixService
