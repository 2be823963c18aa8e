#pragma once

#include "ipc/IPCServerListenerIF.h"
#include "runtime/AsyncCallback.h"
#include "runtime/DPrint.h"
#include "runtime/TaskCheck.h"
#include "runtime/ThreadMutex.h"
#include "runtime/ipc/ConnectorSocket.h"
#include "runtime/ipc/IPCServerListenerFactory.h"
#include "runtime/ipc/NetworkAddress.h"
#include "runtime/ipc/ServerListenerIF.h"

#include <functional>
#include <memory>
#include <string>
#include <utility>

/// Accepts the clients of one service: gives each a name, creates its handler and passes it to the server.
/// Task: the task given. Start() and Stop() may be called from any thread.
/// Owner: the server. A socket that was accepted before Stop() but is handled after it is closed.
template <class T>
class IPCServerListener final : public IPCServerListenerIF<T>, public std::enable_shared_from_this<IPCServerListener<T>>
{
public:
    using typename IPCServerListenerIF<T>::NewClientCallback;
    using typename IPCServerListenerIF<T>::HandlerFactory;
    using Socket = std::shared_ptr<Network::ConnectorSocket>;

    /// Null if an override factory returns a listener of another type.
    static std::shared_ptr<IPCServerListenerIF<T>> Create(const std::string& name, NotifyTargetTaskIF* task)
    {
        if (IPCServerListenerFactoryIF* const factory = IPCServerListenerFactory::detail::GetFactory())
        {
            return std::dynamic_pointer_cast<IPCServerListenerIF<T>>(factory->CreateListener(name, task));
        }
        return std::make_shared<IPCServerListener<T>>(name, task);
    }

    IPCServerListener(const std::string& name, NotifyTargetTaskIF* task)
        : m_name(name)
        , m_task(task)
        , m_serverListener(IL::CreateServerListener("IPCServerListener", task))
        , m_log(name)
    {
    }

    void Start(const Network::Address& address, const NewClientCallback& newClientCallback,
               const HandlerFactory& handlerFactory) override
    {
        DPRINTF(m_log, DPrint::LEVEL_INFO, "Listen for Socket Connection on |%s|", address.ToString().c_str());
        const ScopedMutex lock(m_listenerMutex);
        const AsyncCallback<Socket> onAccept(
            [self = this->shared_from_this()](const Socket& socket) { self->HandleAccept(socket); }, m_task);
        if (m_serverListener && m_serverListener->Listen(address, onAccept))
        {
            m_newClientCallback = newClientCallback;
            m_handlerFactory = handlerFactory;
        }
    }

    void Stop() override
    {
        NewClientCallback
            endedCallback; // destroyed after the lock is released: they may hold the last reference to the server
        HandlerFactory endedFactory;
        const ScopedMutex lock(m_listenerMutex);
        if (m_serverListener)
        {
            endedCallback.swap(m_newClientCallback);
            endedFactory.swap(m_handlerFactory);
            m_serverListener->Stop();
            m_serverListener.reset();
        }
    }

private:
    void HandleAccept(const Socket& socket)
    {
        TASK_CHECK(m_task);
        DPRINTF(m_log, DPrint::LEVEL_INFO, "Handle New Socket Connection");
        const std::string name = m_name + '_' + std::to_string(m_connectionCounter++);
        HandlerFactory factory;
        {
            const ScopedMutex lock(m_listenerMutex); // Start() may still be setting the factory on another thread
            if (!m_serverListener)
            {
                return;
            }
            factory = m_handlerFactory;
        }
        const std::shared_ptr<T> handler = factory(name, socket);
        NewClientCallback callback;
        {
            const ScopedMutex lock(m_listenerMutex);
            callback = m_newClientCallback;
        }
        if (callback)
        {
            callback(handler);
        }
    }

    const std::string m_name;
    NotifyTargetTaskIF* const m_task;
    std::shared_ptr<IL::ServerListenerIF> m_serverListener; ///< null after Stop()
    const DPrint m_log;
    unsigned int m_connectionCounter = 0;
    NewClientCallback m_newClientCallback; ///< empty until Start() has bound the socket
    HandlerFactory m_handlerFactory;
    CThreadMutex m_listenerMutex; ///< guards the listener and the two functions
};
