#include "base/ListeningSocket.h"

#include <cerrno>
#include <chrono>
#include <cstring>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <system_error>
#include <thread>
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

class Descriptor final
{
public:
    explicit Descriptor(int descriptor)
        : m_descriptor(descriptor)
    {
    }
    ~Descriptor()
    {
        if (m_descriptor >= 0)
        {
            ::close(m_descriptor);
        }
    }
    Descriptor(const Descriptor&) = delete;
    Descriptor& operator=(const Descriptor&) = delete;
    int Get() const
    {
        return m_descriptor;
    }
    int Release()
    {
        return std::exchange(m_descriptor, -1);
    }

private:
    int m_descriptor;
};

int MakeSocket()
{
    return ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
}

/// For as long as the descriptor is open. One of us holds it for a moment; where a stranger does, for whom it is enough
/// to read the folder, we do without: flock() itself would wait for good.
void Lock(int folder)
{
    constexpr std::chrono::milliseconds kLimit{1000};
    constexpr std::chrono::milliseconds kPause{5};
    const auto until = std::chrono::steady_clock::now() + kLimit;
    while (::flock(folder, LOCK_EX | LOCK_NB) != 0 && std::chrono::steady_clock::now() < until)
    {
        std::this_thread::sleep_for(kPause);
    }
}

/// Removes the file of a socket that nobody listens on. Empty on success, else what is in the way.
std::string RemoveLeftover(const std::string& path)
{
    struct stat status = {};
    if (::lstat(path.c_str(), &status) != 0)
    {
        return errno == ENOENT ? "" : ErrorText(errno);
    }
    if (!S_ISSOCK(status.st_mode))
    {
        return "a file that is no socket is in its place";
    }
    const Descriptor probe(MakeSocket());
    const sockaddr_un address = AddressOf(path);
    if (probe.Get() < 0)
    {
        return ErrorText(errno);
    }
    if (::connect(probe.Get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0 || errno == EAGAIN)
    {
        return "another process listens on it"; // EAGAIN: its queue is full
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
        return "a path of " + std::to_string(path.size()) + " bytes is none of a socket";
    }
    // Two that find the same leftover at once must not each remove what the other has just made.
    const std::string directory = path.substr(0, path.find_last_of('/') + 1);
    const Descriptor lock(::open(directory.empty() ? "." : directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (lock.Get() < 0)
    {
        return ErrorText(errno);
    }
    Lock(lock.Get());
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
    // Nobody can connect before the last of these, so nobody comes in by another mode.
    struct stat status = {};
    if (::chmod(path.c_str(), mode) != 0 || ::lstat(path.c_str(), &status) != 0 ||
        ::listen(socket.Get(), SOMAXCONN) != 0)
    {
        const std::string fault = ErrorText(errno);
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
