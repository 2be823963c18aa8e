#include "Link.h"

#include <array>
#include <cerrno>
#include <poll.h>
#include <string_view>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>
#include <utility>

namespace
{

using Clock = std::chrono::steady_clock;

} // namespace

Link::Link(std::string path)
    : m_path(std::move(path))
{
}

Link::~Link()
{
    Shut();
}

bool Link::Open()
{
    Shut();
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (m_path.size() >= sizeof(address.sun_path))
    {
        errno = ENAMETOOLONG;
        return false;
    }
    m_path.copy(address.sun_path, m_path.size());
    m_socket = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (m_socket >= 0 && connect(m_socket, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) == 0)
    {
        return true;
    }
    const int error = errno;
    Shut();
    errno = error;
    return false;
}

void Link::Shut()
{
    if (m_socket >= 0)
    {
        close(m_socket);
    }
    m_socket = -1;
    m_read.clear();
    m_searched = 0;
}

void Link::Send(const std::string& line)
{
    const std::string bytes = line + '\n';
    for (std::string_view rest = bytes; !rest.empty();)
    {
        const ssize_t sent = send(m_socket, rest.data(), rest.size(), MSG_NOSIGNAL);
        if (sent < 0 && errno != EINTR)
        {
            return;
        }
        rest.remove_prefix(static_cast<std::size_t>(std::max<ssize_t>(sent, 0)));
    }
}

Link::Event Link::Wait(std::string& line, int other, std::optional<std::chrono::milliseconds> limit)
{
    const auto until = Clock::now() + limit.value_or(std::chrono::milliseconds(0));
    for (;;)
    {
        const std::size_t end = m_read.find('\n', m_searched);
        if (end != std::string::npos)
        {
            line = m_read.substr(0, end);
            m_read.erase(0, end + 1);
            m_searched = 0;
            return Event::LINE;
        }
        m_searched = m_read.size();
        int milliseconds = -1;
        if (limit)
        {
            const auto rest = std::chrono::ceil<std::chrono::milliseconds>(until - Clock::now());
            milliseconds = static_cast<int>(std::max<std::int64_t>(0, rest.count()));
        }
        std::array<pollfd, 2> waiting = {{{m_socket, POLLIN, 0}, {other, POLLIN, 0}}};
        const int ready = poll(waiting.data(), waiting.size(), milliseconds);
        if (ready > 0 && waiting[0].revents != 0 && !ReadMore())
        {
            Shut();
            return Event::CLOSED;
        }
        if (ready > 0 && waiting[1].revents != 0)
        {
            return Event::OTHER;
        }
        if (ready == 0 && milliseconds == 0)
        {
            return Event::TIME;
        }
    }
}

bool Link::ReadMore()
{
    std::array<char, 65536> bytes{};
    const ssize_t count = recv(m_socket, bytes.data(), bytes.size(), 0);
    if (count > 0)
    {
        m_read.append(bytes.data(), static_cast<std::size_t>(count));
    }
    return count > 0 || (count < 0 && errno == EINTR);
}
