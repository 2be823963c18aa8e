#pragma once

#include "runtime/Callback.h"
#include "runtime/CallbackConnection.h"
#include "runtime/ThreadMutex.h"

#include <algorithm>
#include <list>
#include <memory>
#include <utility>

/// A signal with any number of subscribers, called in the order of connection. Safe from any thread. The mutex is held
/// for changes of the list and for `onEmpty`, never for a subscriber. A subscriber runs on the sender's thread; one
/// that must run on its own task connects an AsyncCallback. Subscribers must not throw.
///
/// Design: Send() calls a snapshot of the list. A subscriber that disconnects meanwhile is skipped; its node is removed
/// from the list at the end of Send(). The lists are in a shared State, so that neither a CallbackConnection nor a
/// Send() on another thread accesses a destroyed registry. Callables are destroyed after the mutex is released, because
/// destructors of what they hold may take other locks.
template <class... Args>
class CallbackRegistry
{
    class ConnectionImpl;
    using Node = std::shared_ptr<ConnectionImpl>;
    using NodeList = std::list<Node>;
    using Iterator = typename NodeList::iterator;
    using Garbage = std::list<Callback<Args...>>; ///< declared before a scope's lock: destroyed after it

public:
    /// `onEmpty` is called with the mutex held each time the list becomes empty. Several registries may share one
    /// `mutex`; if null, the registry creates its own.
    explicit CallbackRegistry(const Callback<void>& onEmpty = {}, std::shared_ptr<CThreadMutex> mutex = nullptr)
        : m_state(std::make_shared<State>())
    {
        m_state->m_mutex = mutex ? std::move(mutex) : std::make_shared<CThreadMutex>();
        m_state->m_onEmpty = onEmpty;
    }
    CallbackRegistry(const CallbackRegistry&) = delete;
    CallbackRegistry& operator=(const CallbackRegistry&) = delete;

    ~CallbackRegistry()
    {
        Garbage garbage;
        const ScopedMutex lock(*m_state->m_mutex);
        m_state->DisconnectAll(garbage);
        for (const Node& connection : m_state->m_connections) // those that a Send on another thread has not called yet
        {
            connection->Detach(garbage);
        }
        m_state->m_onEmpty.Clear(); // a Send on another thread must not call the registry's owner
    }

    CallbackConnection Connect(const Callback<Args...>& callback)
    {
        const ScopedMutex lock(*m_state->m_mutex);
        auto connection = std::make_shared<ConnectionImpl>(callback, m_state);
        m_state->m_connections.push_back(connection);
        connection->m_self = std::prev(m_state->m_connections.end());
        return CallbackConnection(connection);
    }

    /// Calls every subscriber except `except`; a default-constructed `except` skips none.
    void Send(const Args&... args, const CallbackConnection& except) const
    {
        const std::shared_ptr<State> state = m_state;
        Garbage garbage;
        NodeList snapshot;
        {
            const ScopedMutex lock(*state->m_mutex);
            state->m_sending = true;
            snapshot = state->m_connections;
        }
        for (const Node& connection : snapshot)
        {
            if (except != std::shared_ptr<CallbackConnectionIF>(connection))
            {
                connection->Call(args...);
            }
        }
        const ScopedMutex lock(*state->m_mutex);
        state->FinishSend(garbage);
    }

    void DisconnectAll()
    {
        Garbage garbage;
        const std::shared_ptr<State> state = m_state; // onEmpty may destroy this registry
        const ScopedMutex lock(*state->m_mutex);
        state->DisconnectAll(garbage);
    }

private:
    struct State
    {
        std::shared_ptr<CThreadMutex> m_mutex;
        Callback<void> m_onEmpty;
        NodeList m_connections;
        std::list<Iterator> m_pendingRemovals; ///< removals postponed until the running Send ends
        bool m_sending = false;                ///< one flag, not a count: the end of a nested Send clears it for both

        void Remove(Iterator node)
        {
            if (m_sending)
            {
                if (!IsPending(node))
                {
                    m_pendingRemovals.push_back(node);
                }
                return;
            }
            m_connections.erase(node);
            NotifyIfEmpty();
        }

        bool IsPending(Iterator node) const
        {
            return std::find(m_pendingRemovals.begin(), m_pendingRemovals.end(), node) != m_pendingRemovals.end();
        }

        void FinishSend(Garbage& garbage)
        {
            while (!m_pendingRemovals.empty())
            {
                const Iterator node = m_pendingRemovals.front();
                m_pendingRemovals.pop_front();
                const Node connection = *node; // keeps it alive after erase()
                connection->Detach(garbage);
                m_connections.erase(node);
                NotifyIfEmpty();
            }
            m_sending = false;
        }

        void DisconnectAll(Garbage& garbage)
        {
            if (m_connections.empty())
            {
                return;
            }
            if (m_sending)
            {
                m_pendingRemovals.clear();
                for (auto node = m_connections.begin(); node != m_connections.end(); ++node)
                {
                    m_pendingRemovals.push_back(node);
                }
                return;
            }
            const NodeList leaving = std::move(m_connections);
            m_connections.clear();
            for (const Node& connection : leaving)
            {
                connection->Detach(garbage);
            }
            NotifyIfEmpty();
        }

        void NotifyIfEmpty() const
        {
            if (m_connections.empty())
            {
                const Callback<void> onEmpty = m_onEmpty; // a copy: the callback may destroy the registry
                onEmpty();
            }
        }
    };

    class ConnectionImpl final : public CallbackConnectionIF
    {
    public:
        ConnectionImpl(const Callback<Args...>& callback, const std::shared_ptr<State>& registry)
            : m_callback(callback)
            , m_registry(registry)
            , m_mutex(registry->m_mutex)
        {
        }

        void Disconnect() override
        {
            Garbage garbage;
            const ScopedMutex lock(*m_mutex);
            if (const std::shared_ptr<State> registry = std::exchange(m_registry, {}).lock())
            {
                registry->Remove(m_self);
            }
            Detach(garbage);
        }

        bool IsConnected() const override
        {
            const ScopedMutex lock(*m_mutex);
            return m_connected;
        }

        void Call(const Args&... args)
        {
            {
                const ScopedMutex lock(*m_mutex);
                if (!m_connected)
                {
                    return;
                }
                ++m_inCall;
            }
            struct EndOfCall
            {
                ConnectionImpl& m_connection;
                ~EndOfCall()
                {
                    const ScopedMutex lock(*m_connection.m_mutex);
                    --m_connection.m_inCall;
                }
            } const end{*this};
            m_callback(args...);
        }

        /// Marks the subscription as disconnected. Requires the mutex. Does not destroy a callback that is running.
        void Detach(Garbage& garbage)
        {
            m_connected = false;
            m_registry.reset();
            if (m_inCall == 0)
            {
                garbage.push_back(std::exchange(m_callback, {}));
            }
        }

        Iterator m_self;

    private:
        Callback<Args...> m_callback;
        bool m_connected = true;
        int m_inCall = 0; ///< a count, since two threads may be in this callback at once
        std::weak_ptr<State> m_registry;
        std::shared_ptr<CThreadMutex> m_mutex;
    };

    std::shared_ptr<State> m_state;
};
