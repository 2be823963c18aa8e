#pragma once

#include "bench/support/Processes.h"

#include <cstddef>
#include <optional>
#include <string>

/// Clients of local sockets in a process of their own, so that what they take is not counted with the server. They look
/// at no byte that they get.
class Clients final
{
public:
    Clients();
    ~Clients();
    Clients(const Clients&) = delete;
    Clients& operator=(const Clients&) = delete;

    /// Has so many connections to `path`, no more and no fewer.
    void Connect(const std::string& path, std::size_t count);
    /// Each client writes `request`, then each reads `answerBytes`; and so on. Returns when all is read.
    void RoundTrips(const std::string& path, std::size_t rounds, const std::string& request, std::size_t answerBytes);
    /// Each client reads so much.
    void Read(const std::string& path, std::size_t bytes);

    /// What the other process runs, on the descriptor that it inherits.
    static int Main();

private:
    void Order(const std::string& order);

    int m_socket = -1;
    std::optional<ChildProcess> m_process;
};
