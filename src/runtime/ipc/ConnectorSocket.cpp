#include "runtime/ipc/ConnectorSocket.h"

#include <array>
#include <cstddef>
#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>
#include <utility>

namespace
{

/// Returns an empty string if the name cannot be read, for example if this process has no free descriptor.
std::string ProcessName(pid_t pid)
{
    std::array<char, 32> name{};
    const int file = ::open(("/proc/" + std::to_string(pid) + "/comm").c_str(), O_RDONLY | O_CLOEXEC);
    if (file < 0)
    {
        return {};
    }
    const ssize_t count = ::read(file, name.data(), name.size());
    ::close(file);
    return {name.data(), count > 0 ? static_cast<std::size_t>(count) - 1 : 0}; // without the newline
}

std::string PeerText(int descriptor)
{
    ucred peer{};
    socklen_t length = sizeof peer;
    if (::getsockopt(descriptor, SOL_SOCKET, SO_PEERCRED, &peer, &length) != 0)
    {
        return "an unknown process";
    }
    const std::string name = ProcessName(peer.pid);
    return "pid " + std::to_string(peer.pid) + (name.empty() ? "" : " (" + name + ')') + ", uid " +
           std::to_string(peer.uid) + ", gid " + std::to_string(peer.gid);
}

} // namespace

namespace Network
{

ConnectorSocket::ConnectorSocket(int descriptor)
    : m_descriptor(descriptor)
    , m_peer(PeerText(descriptor))
{
}

ConnectorSocket::~ConnectorSocket()
{
    if (m_descriptor >= 0)
    {
        ::close(m_descriptor);
    }
}

int ConnectorSocket::Release()
{
    return std::exchange(m_descriptor, -1);
}

} // namespace Network
