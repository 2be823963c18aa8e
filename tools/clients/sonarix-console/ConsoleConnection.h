#pragma once

#include "tools/clients/options/LocalSocket.h"

#include <cstddef>
#include <optional>
#include <string>

/// The connection to the service's debug console: lines in both directions. For a single-threaded program: operations
/// block.
class ConsoleConnection final
{
public:
    explicit ConsoleConnection(const std::string& path);

    /// Closes an open connection first. Returns false, with errno, if no process listens.
    [[nodiscard]] bool Open();
    void Close();
    const LocalSocket& Socket() const
    {
        return m_socket;
    }

    /// If it fails, a later Wait() returns CLOSED, after the lines that have arrived.
    void Send(const std::string& line);

    /// Like LocalSocket::Wait(), but RECEIVED means a whole line, stored in `line` without its end.
    LocalSocket::Event Wait(std::string& line, int other, std::optional<LocalSocket::Clock::time_point> until);

private:
    LocalSocket m_socket;
    std::string m_read;
    std::size_t m_searched = 0; ///< these first bytes of m_read contain no '\n'
};
