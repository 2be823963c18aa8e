#include "base/ListeningSocket.h"

#include "base/Descriptor.h"

#include <cerrno>
#include <cstring>
#include <mutex>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <system_error>
#include <unistd.h>
#include <utility>

namespace
{

std::string ErrorText(int error)
{
    return std::generic_category().message(error);
}

sockaddr_un AddressOf(const std::string& path)
{
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::memcpy(address.sun_path, path.c_str(), path.size() + 1);
    return address;
}

int MakeSocket()
{
    return ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
}

/// Removes the file of a socket on which no process listens. Returns why the file must stay, empty on success.
std::string RemoveLeftover(const std::string& path)
{
    struct stat status = {};
    if (::lstat(path.c_str(), &status) != 0)
    {
        return errno == ENOENT ? "" : ErrorText(errno);
    }
    if (!S_ISSOCK(status.st_mode))
    {
        return "the path exists and is not a socket";
    }
    const Descriptor probe(MakeSocket());
    const sockaddr_un address = AddressOf(path);
    if (probe.Get() < 0)
    {
        return ErrorText(errno);
    }
    if (::connect(probe.Get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0 || errno == EAGAIN)
    {
        return "another process listens on it"; // EAGAIN: its backlog is full
    }
    if (errno != ECONNREFUSED)
    {
        return ErrorText(errno);
    }
    return ::unlink(path.c_str()) == 0 || errno == ENOENT ? "" : ErrorText(errno);
}

} // namespace

ListeningSocket::~ListeningSocket()
{
    if (m_descriptor >= 0)
    {
        ::close(m_descriptor);
    }
    RemoveFile();
}

std::string ListeningSocket::Open(const std::string& path, mode_t mode)
{
    if (path.empty() || path.size() >= sizeof(sockaddr_un::sun_path))
    {
        return "a socket's path cannot have " + std::to_string(path.size()) + " bytes";
    }
    // Two threads that find the same leftover socket file must not remove each other's new socket. Two processes do not
    // share a run directory: see SystemUtils::ThereCanBeOnlyOne(). A lock on a file would let other users delay the
    // start.
    static std::mutex s_mutex;
    const std::lock_guard lock(s_mutex);
    const std::string obstacle = RemoveLeftover(path);
    return obstacle.empty() ? Bind(path, mode) : obstacle;
}

std::string ListeningSocket::Bind(const std::string& path, mode_t mode)
{
    Descriptor socket(MakeSocket());
    const sockaddr_un address = AddressOf(path);
    if (socket.Get() < 0 || ::bind(socket.Get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0)
    {
        return ErrorText(errno);
    }
    // A client can connect only after listen(), so the mode is set before.
    struct stat status = {};
    if (::chmod(path.c_str(), mode) != 0 || ::lstat(path.c_str(), &status) != 0 ||
        ::listen(socket.Get(), SOMAXCONN) != 0)
    {
        std::string fault = ErrorText(errno);
        ::unlink(path.c_str());
        return fault;
    }
    m_descriptor = socket.Release();
    m_path = path;
    m_device = status.st_dev;
    m_inode = status.st_ino;
    return {};
}

int ListeningSocket::Release()
{
    return std::exchange(m_descriptor, -1);
}

void ListeningSocket::RemoveFile()
{
    struct stat status = {};
    const std::string path = std::exchange(m_path, {});
    if (!path.empty() && ::lstat(path.c_str(), &status) == 0 && status.st_dev == m_device && status.st_ino == m_inode)
    {
        ::unlink(path.c_str());
    }
}
