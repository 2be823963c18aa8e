#include "SocketFile.h"

#include <cerrno>
#include <cstring>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>
#include <utility>

namespace
{

bool FillAddress(const std::string& path, sockaddr_un& address)
{
    address = {};
    address.sun_family = AF_UNIX;
    if (path.size() >= sizeof(address.sun_path))
    {
        return false;
    }
    path.copy(address.sun_path, path.size());
    return true;
}

int Bind(int socket, const sockaddr_un& address)
{
    return ::bind(socket, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) == 0 ? 0 : errno;
}

/// Whether anybody listens; one whose queue is full does.
bool IsListenedTo(const sockaddr_un& address)
{
    const int socket = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    if (socket < 0)
    {
        return true; // not to be found out: nothing is taken away
    }
    const int error = ::connect(socket, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) == 0 ? 0 : errno;
    ::close(socket);
    return error != ECONNREFUSED && error != ENOENT;
}

/// 0, or the errno of what stands in the way.
int MakeWay(const std::string& path, const sockaddr_un& address)
{
    struct stat status = {};
    if (::lstat(path.c_str(), &status) != 0)
    {
        return errno == ENOENT ? 0 : errno;
    }
    if (!S_ISSOCK(status.st_mode) || IsListenedTo(address))
    {
        return EADDRINUSE;
    }
    return ::unlink(path.c_str()) == 0 || errno == ENOENT ? 0 : errno;
}

} // namespace

Console::SocketFile::~SocketFile()
{
    struct stat status = {};
    if (!m_path.empty() && ::lstat(m_path.c_str(), &status) == 0 && status.st_dev == m_device &&
        status.st_ino == m_inode)
    {
        ::unlink(m_path.c_str());
    }
    if (m_socket >= 0)
    {
        ::close(m_socket);
    }
}

bool Console::SocketFile::Listen(const std::string& path, std::string& error)
{
    sockaddr_un address;
    int failure = FillAddress(path, address) ? 0 : ENAMETOOLONG;
    if (failure == 0)
    {
        m_socket = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
        // The file gets the mode of the descriptor, so that there is no moment in which others can connect.
        failure = m_socket < 0 || ::fchmod(m_socket, 0600) != 0 ? errno : Bind(m_socket, address);
    }
    if (failure == EADDRINUSE)
    {
        failure = MakeWay(path, address);
        failure = failure == 0 ? Bind(m_socket, address) : failure;
    }
    struct stat status = {};
    if (failure == 0 && (::lstat(path.c_str(), &status) != 0 || ::listen(m_socket, SOMAXCONN) != 0))
    {
        failure = errno;
    }
    if (failure != 0)
    {
        error = path + ": " + std::strerror(failure);
        return false;
    }
    m_path = path;
    m_device = status.st_dev;
    m_inode = status.st_ino;
    return true;
}

int Console::SocketFile::Release()
{
    return std::exchange(m_socket, -1);
}
