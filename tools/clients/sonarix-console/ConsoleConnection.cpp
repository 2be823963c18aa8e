#include "tools/clients/sonarix-console/ConsoleConnection.h"

ConsoleConnection::ConsoleConnection(const std::string& path)
    : m_socket(path)
{
}

bool ConsoleConnection::Open()
{
    Close();
    return m_socket.Open();
}

void ConsoleConnection::Close()
{
    m_socket.Close();
    m_read.clear();
    m_searched = 0;
}

void ConsoleConnection::Send(const std::string& line)
{
    m_socket.Send(line + '\n');
}

LocalSocket::Event ConsoleConnection::Wait(std::string& line, int other,
                                           std::optional<LocalSocket::Clock::time_point> until)
{
    for (;;)
    {
        const std::size_t end = m_read.find('\n', m_searched);
        if (end != std::string::npos)
        {
            line = m_read.substr(0, end);
            m_read.erase(0, end + 1);
            m_searched = 0;
            return LocalSocket::Event::RECEIVED;
        }
        m_searched = m_read.size();
        const LocalSocket::Event event = m_socket.Wait(m_read, other, until);
        if (event == LocalSocket::Event::CLOSED)
        {
            Close();
        }
        if (event != LocalSocket::Event::RECEIVED)
        {
            return event;
        }
    }
}
