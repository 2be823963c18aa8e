#pragma once

#include "tools/clients/options/LocalSocket.h"

#include <chrono>
#include <optional>
#include <string>

/// The connection to the service's console. For one thread, which it blocks.
class Link final
{
public:
    enum class Event
    {
        LINE,
        CLOSED, ///< the service has gone; the link is shut
        OTHER,  ///< the other descriptor can be read
        TIME,
    };

    explicit Link(const std::string& path);

    /// False, with errno, where nobody listens.
    [[nodiscard]] bool Open();
    void Shut();
    bool IsOpen() const
    {
        return m_socket.IsOpen();
    }
    int Descriptor() const ///< -1 where it is shut
    {
        return m_socket.Descriptor();
    }
    const std::string& Path() const
    {
        return m_socket.Path();
    }

    /// A failure is seen as CLOSED by a later Wait, after the lines that are there.
    void Send(const std::string& line);

    /// Fills `line` for LINE alone. A shut link waits for the rest. `other` -1: none; no `limit`: for ever.
    Event Wait(std::string& line, int other, std::optional<std::chrono::milliseconds> limit);

private:
    LocalSocket m_socket;
    std::string m_read;
    std::size_t m_searched = 0; ///< so much of it holds no line's end
};
