#pragma once

#include <memory>
#include <utility>

/// What a subscription can do. Implemented by registries, backends and the gateway client.
class CallbackConnectionIF
{
public:
    virtual void Disconnect() = 0;
    virtual bool IsConnected() const = 0;
    virtual ~CallbackConnectionIF() = default;
};

/// Handle of a subscription. Its destruction does NOT disconnect: dropping or overwriting a handle leaves
/// the subscription in force. An owner that wants the end with its own end holds a ScopedConnection.
/// Not synchronised: each handle belongs to one task. Disconnecting twice is harmless.
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
        // A copy: what is called may overwrite this very handle.
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

/// Holds a subscription and ends it with its own end, or when another one is assigned.
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
