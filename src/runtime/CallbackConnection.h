#pragma once

#include <memory>
#include <utility>

/// A subscription or another cancellable request. Implemented by registries, mDNS backends and the gateway client.
class CallbackConnectionIF
{
public:
    virtual void Disconnect() = 0;
    virtual bool IsConnected() const = 0;
    virtual ~CallbackConnectionIF() = default;
};

/// Handle of a subscription. A value, not synchronised: each handle belongs to one task. Disconnecting twice is
/// harmless.
///
/// Dropping or overwriting the last handle:
/// - of a CallbackRegistry, a task's stop notification or the gateway client leaves the subscription active. The owner
///   calls Disconnect(), or holds a ScopedConnection.
/// - from Browse(), Resolve() or PublishService() of mDNS ends the operation, because these objects are owned by their
///   handle and clean up in their destructor.
class CallbackConnection
{
public:
    CallbackConnection() = default;
    CallbackConnection(std::shared_ptr<CallbackConnectionIF> connection)
        : m_connection(std::move(connection))
    {
    }

    void Disconnect() const
    {
        // A copy, because the called object may overwrite this handle.
        if (const std::shared_ptr<CallbackConnectionIF> connection = m_connection)
        {
            connection->Disconnect();
        }
    }

    bool IsConnected() const
    {
        return m_connection && m_connection->IsConnected();
    }

    bool operator!=(const std::shared_ptr<CallbackConnectionIF>& other) const
    {
        return m_connection != other;
    }
    bool operator==(const std::shared_ptr<CallbackConnectionIF>& other) const
    {
        return m_connection == other;
    }

private:
    std::shared_ptr<CallbackConnectionIF> m_connection;
};

/// Holds a subscription; disconnects it in the destructor, or when another one is assigned.
class ScopedConnection final
{
public:
    ScopedConnection() = default;
    ScopedConnection(CallbackConnection connection)
        : m_connection(std::move(connection))
    {
    }
    ScopedConnection(const ScopedConnection&) = delete;
    ScopedConnection& operator=(const ScopedConnection&) = delete;
    ~ScopedConnection()
    {
        m_connection.Disconnect();
    }

    ScopedConnection& operator=(CallbackConnection connection)
    {
        m_connection.Disconnect();
        m_connection = std::move(connection);
        return *this;
    }

    void Disconnect() const
    {
        m_connection.Disconnect();
    }
    bool IsConnected() const
    {
        return m_connection.IsConnected();
    }

private:
    CallbackConnection m_connection;
};
