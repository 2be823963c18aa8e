#include "tools/clients/sonarix-console/Link.h"

#include <algorithm>
#include <array>
#include <cstdint>
#include <poll.h>

namespace
{

using Clock = std::chrono::steady_clock;

} // namespace

Link::Link(const std::string& path)
    : m_socket(path)
{
}

bool Link::Open()
{
    Shut();
    return m_socket.Open();
}

void Link::Shut()
{
    m_socket.Shut();
    m_read.clear();
    m_searched = 0;
}

void Link::Send(const std::string& line)
{
    m_socket.Send(line + '\n');
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
        std::array<pollfd, 2> waiting = {{{m_socket.Descriptor(), POLLIN, 0}, {other, POLLIN, 0}}};
        const int ready = poll(waiting.data(), waiting.size(), milliseconds);
        if (ready > 0 && waiting[0].revents != 0 && !m_socket.Receive(m_read))
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
