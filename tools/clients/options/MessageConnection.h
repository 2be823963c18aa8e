#pragma once

#include "tools/clients/options/LocalSocket.h"

#include <string>
#include <string_view>
#include <utility>

/// A connection to one of the service's local sockets. `Reader` splits the received bytes into messages:
///
///     void Append(std::string_view bytes);
///     Result Next(Message& message); // Reader::MORE: incomplete; Reader::FAULT: unreadable; else `message` is set
///
/// For a single-threaded program: operations block.
template <class Reader>
class MessageConnection final
{
public:
    explicit MessageConnection(std::string path)
        : m_socket(std::move(path))
    {
    }

    /// Closes an open connection first. Returns false, with errno, if no process listens.
    [[nodiscard]] bool Open()
    {
        Close();
        return m_socket.Open();
    }
    void Close()
    {
        m_socket.Close();
        m_reader = {};
    }
    const LocalSocket& Socket() const
    {
        return m_socket;
    }

    /// If it fails, a later Wait() returns CLOSED, after the messages that have arrived.
    void Send(std::string_view bytes)
    {
        m_socket.Send(bytes);
    }

    /// Like LocalSocket::Wait(), but RECEIVED means a whole message, stored in `message`. Unreadable bytes close the
    /// connection.
    template <class Message>
    LocalSocket::Event Wait(Message& message, int other, std::optional<LocalSocket::Clock::time_point> until)
    {
        for (;;)
        {
            const auto result = m_socket.IsOpen() ? m_reader.Next(message) : Reader::MORE;
            if (result != Reader::MORE && result != Reader::FAULT)
            {
                return LocalSocket::Event::RECEIVED;
            }
            std::string bytes;
            const LocalSocket::Event event =
                result == Reader::FAULT ? LocalSocket::Event::CLOSED : m_socket.Wait(bytes, other, until);
            if (event == LocalSocket::Event::CLOSED)
            {
                Close();
            }
            if (event != LocalSocket::Event::RECEIVED)
            {
                return event;
            }
            m_reader.Append(bytes);
        }
    }

private:
    LocalSocket m_socket;
    Reader m_reader;
};
