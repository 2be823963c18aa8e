#pragma once

#include "runtime/Callback.h"
#include "runtime/CallbackConnection.h"
#include "runtime/Task.h"

#include <atomic>
#include <functional>
#include <memory>
#include <tuple>
#include <type_traits>
#include <utility>

/// The target task of an AsyncCallback, null once that task has stopped.
class AsyncCallbackImplBase : public std::enable_shared_from_this<AsyncCallbackImplBase>
{
public:
    explicit AsyncCallbackImplBase(NotifyTargetTaskIF* task)
        : m_task(task)
    {
    }
    AsyncCallbackImplBase(const AsyncCallbackImplBase&) = delete;
    AsyncCallbackImplBase& operator=(const AsyncCallbackImplBase&) = delete;
    virtual ~AsyncCallbackImplBase()
    {
        m_stopConnection.Disconnect();
    }

    /// Subscribes to the task's stop notification. Not in the constructor, because it needs shared_from_this().
    void Initialize()
    {
        NotifyTargetTaskIF* const task = m_task.load();
        if (task == nullptr)
        {
            return;
        }
        const WeakRef self(shared_from_this());
        m_stopConnection = task->ConnectStopNotification([self] { self.notifyStopped(); });
    }

protected:
    NotifyTargetTaskIF* Target() const
    {
        return m_task.load();
    }

private:
    /// Refers to an Impl that may have been destroyed when the task stops.
    class WeakRef
    {
    public:
        explicit WeakRef(const std::shared_ptr<AsyncCallbackImplBase>& impl)
            : m_impl(impl)
        {
        }
        void notifyStopped() const
        {
            if (const std::shared_ptr<AsyncCallbackImplBase> impl = m_impl.lock())
            {
                impl->m_task = nullptr;
            }
        }

    private:
        std::weak_ptr<AsyncCallbackImplBase> m_impl;
    };

    std::atomic<NotifyTargetTaskIF*> m_task; ///< null: calls are dropped
    CallbackConnection m_stopConnection;
};

/// A callable that always runs on the task given at construction. A call copies its arguments, posts and returns. After
/// the task's stop notification, or with a null task, a call does nothing. Copies share one Impl. Destroying every copy
/// does not cancel a posted call: owners stop their task before they are destroyed, or use runtime/Liveness.h.
template <class... Args>
class AsyncCallback
{
public:
    using Function = std::function<void(const Args&...)>;

    AsyncCallback(const Function& function, NotifyTargetTaskIF* task)
        : m_impl(std::make_shared<Impl>(function, task))
    {
        m_impl->Initialize();
    }

    void operator()(const Args&... args) const
    {
        m_impl->Call(args...);
    }

private:
    /// One posted call: a copy of the function and copies of the arguments.
    class AsyncCallbackEntry final : public IL::CallbackEntry
    {
    public:
        AsyncCallbackEntry(const Function& function, const Args&... args)
            : m_function(function)
            , m_args(args...)
        {
        }
        void Dispatch() override
        {
            std::apply(m_function, m_args);
        }

    private:
        Function m_function;
        std::tuple<std::remove_const_t<Args>...> m_args;
    };

    class Impl final : public AsyncCallbackImplBase
    {
    public:
        Impl(const Function& function, NotifyTargetTaskIF* task)
            : AsyncCallbackImplBase(task)
            , m_function(std::make_shared<Function>(function))
        {
        }

        void Call(const Args&... args) const
        {
            if (NotifyTargetTaskIF* const task = Target())
            {
                task->Post(std::make_shared<AsyncCallbackEntry>(*m_function, args...));
            }
        }

    private:
        std::shared_ptr<Function> m_function;
    };

    std::shared_ptr<Impl> m_impl;
};
