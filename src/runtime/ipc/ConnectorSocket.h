#pragma once

#include <string>

namespace Network
{

/// One connected stream socket on its way from the listener to whoever serves it. Owns the descriptor until that is
/// taken. On one thread at a time.
class ConnectorSocket final
{
public:
    explicit ConnectorSocket(int descriptor);
    ~ConnectorSocket();
    ConnectorSocket(const ConnectorSocket&) = delete;
    ConnectorSocket& operator=(const ConnectorSocket&) = delete;

    /// Who connected, as the kernel vouches for it: "pid 123 (hub-service), uid 0, gid 0". For the log; the pid is 0
    /// for a process of another pid namespace, and by now another's where that process has ended.
    const std::string& Peer() const
    {
        return m_peer;
    }

    /// The caller's from here on; -1 where it was taken already.
    int Release();

private:
    int m_descriptor;
    const std::string m_peer;
};

} // namespace Network
