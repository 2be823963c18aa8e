#pragma once

#include "bench/support/Processes.h"

#include <cstddef>
#include <optional>
#include <string>

/// Clients of local sockets in a separate process, so that their CPU time and memory are not counted for the server.
/// They discard all received bytes. Throws std::runtime_error if a socket fails.
class Clients final
{
public:
    Clients();
    ~Clients();
    Clients(const Clients&) = delete;
    Clients& operator=(const Clients&) = delete;

    /// Opens or closes connections to `path` until there are `count`.
    void Connect(const std::string& path, std::size_t count);
    /// In each round, all clients of `path` write `request`, then all read `answerBytes`. Returns after the last round.
    void RoundTrips(const std::string& path, std::size_t rounds, const std::string& request, std::size_t answerBytes);
    /// Makes each client of `path` read `bytes` bytes.
    void Read(const std::string& path, std::size_t bytes);

    /// The main function of the client process. Reads commands from the inherited descriptor.
    static int Main();

private:
    void Command(const std::string& command);

    int m_socket = -1;
    std::optional<ChildProcess> m_process;
};
