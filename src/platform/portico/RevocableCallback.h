#pragma once

#include "runtime/Callback.h"
#include "runtime/ThreadMutex.h"

#include <memory>
#include <utility>

namespace Portico
{

/// Shared by a client and its callbacks. After `isShutdown` is set, no callback of the client starts.
struct ShutdownState
{
    CThreadMutex mutex; ///< held while a callback of the client runs
    bool isShutdown = false;
};

/// The part of a RevocableCallback that does not depend on its arguments. A CallbackConnection holds it.
class RevocableCallbackIF
{
public:
    virtual ~RevocableCallbackIF() = default;
    virtual void Revoke() = 0;
    virtual bool IsActive() const = 0;
};

/// A callback of the client's user. Any thread may revoke it: it does not start after Revoke() has returned, or after
/// the shutdown. A callback may revoke itself or end its client: the mutex is recursive.
template <class... Args>
class RevocableCallback final : public RevocableCallbackIF
{
public:
    RevocableCallback(std::shared_ptr<ShutdownState> shutdown, const Callback<Args...>& callback)
        : m_shutdown(std::move(shutdown))
        , m_callback(std::make_shared<const Callback<Args...>>(callback))
    {
    }

    void Call(const Args&... args) const
    {
        std::shared_ptr<const Callback<Args...>> callback; // destroyed after the lock
        const ScopedMutex lock(m_shutdown->mutex);
        callback = m_callback;
        if (callback && !m_shutdown->isShutdown)
        {
            (*callback)(args...);
        }
    }

    void Revoke() override
    {
        std::shared_ptr<const Callback<Args...>> callback;
        const ScopedMutex lock(m_shutdown->mutex);
        callback.swap(m_callback);
    }

    bool IsActive() const override
    {
        const ScopedMutex lock(m_shutdown->mutex);
        return m_callback && !m_shutdown->isShutdown;
    }

private:
    std::shared_ptr<ShutdownState> m_shutdown;
    std::shared_ptr<const Callback<Args...>> m_callback;
};

} // namespace Portico
