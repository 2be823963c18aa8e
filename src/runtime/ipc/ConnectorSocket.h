#pragma once

#include <string>

namespace Network
{

/// A connected stream socket that the listener has accepted and a router will serve. Owns the descriptor until
/// Release(). One thread at a time.
class ConnectorSocket final
{
public:
    explicit ConnectorSocket(int descriptor);
    ~ConnectorSocket();
    ConnectorSocket(const ConnectorSocket&) = delete;
    ConnectorSocket& operator=(const ConnectorSocket&) = delete;

    /// The peer at the time of connecting, from SO_PEERCRED: "pid 123 (hub-service), uid 0, gid 0". For the log only:
    /// the pid is 0 for a process of another pid namespace, and may be reused after the process has ended.
    const std::string& Peer() const
    {
        return m_peer;
    }

    /// Passes the descriptor's ownership to the caller; -1 if that has happened before.
    int Release();

private:
    int m_descriptor;
    const std::string m_peer;
};

} // namespace Network
