#include "tools/clients/options/LocalSocket.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>
#include <utility>

LocalSocket::LocalSocket(std::string path)
    : m_path(std::move(path))
{
}

LocalSocket::~LocalSocket()
{
    Close();
}

bool LocalSocket::Open()
{
    Close();
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (m_path.size() >= sizeof(address.sun_path))
    {
        errno = ENAMETOOLONG;
        return false;
    }
    m_path.copy(address.sun_path, m_path.size());
    m_descriptor = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (m_descriptor >= 0 && connect(m_descriptor, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) == 0)
    {
        return true;
    }
    const int error = errno;
    Close();
    errno = error;
    return false;
}

void LocalSocket::Close()
{
    if (m_descriptor >= 0)
    {
        close(m_descriptor);
    }
    m_descriptor = -1;
}

void LocalSocket::Send(std::string_view bytes)
{
    while (!bytes.empty())
    {
        const ssize_t sent = send(m_descriptor, bytes.data(), bytes.size(), MSG_NOSIGNAL);
        if (sent < 0 && errno != EINTR)
        {
            return;
        }
        bytes.remove_prefix(static_cast<std::size_t>(std::max<ssize_t>(sent, 0)));
    }
}

bool LocalSocket::Receive(std::string& bytes)
{
    std::array<char, 65536> buffer{};
    ssize_t count = 0;
    do
    {
        count = recv(m_descriptor, buffer.data(), buffer.size(), 0);
    } while (count < 0 && errno == EINTR);
    bytes.append(buffer.data(), static_cast<std::size_t>(std::max<ssize_t>(count, 0)));
    return count > 0;
}

LocalSocket::Event LocalSocket::Wait(std::string& bytes, int other, std::optional<Clock::time_point> until)
{
    using std::chrono::milliseconds;
    for (;;)
    {
        int limit = -1;
        if (until)
        {
            const auto rest = std::chrono::ceil<milliseconds>(*until - Clock::now());
            limit = static_cast<int>(std::clamp(rest, milliseconds(0), milliseconds(std::chrono::hours(24))).count());
        }
        std::array<pollfd, 2> waiting = {{{other, POLLIN, 0}, {m_descriptor, POLLIN, 0}}};
        const int ready = poll(waiting.data(), waiting.size(), limit);
        if (ready > 0 && waiting[0].revents != 0)
        {
            return Event::OTHER;
        }
        if (ready > 0 && waiting[1].revents != 0)
        {
            if (Receive(bytes))
            {
                return Event::RECEIVED;
            }
            Close();
            return Event::CLOSED;
        }
        if (ready == 0 && until && Clock::now() >= *until)
        {
            return Event::TIMEOUT;
        }
    }
}
