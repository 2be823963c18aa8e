#pragma once

#include <cstddef>
#include <functional>
#include <memory>
#include <string>

class NotifyTargetTaskIF;

namespace Console
{

/// Serves a Unix stream socket on which each line gets a one-line response. Independent of the lines' content.
/// Task: everything but the constructor runs on `task`, which serves the sockets. Owner: a std::shared_ptr.
///
/// Design: a client's next line is read after the response to its last line has been sent, so a client that does not
/// read costs one response. Only broadcasts can queue up, up to kMaxUnreadBytes.
/// Returns to the task's queue after each line, so one client cannot starve the others.
class LineServer final : public std::enable_shared_from_this<LineServer>
{
public:
    struct Responses ///< all lines are without '\n'
    {
        std::function<std::string(const std::string& line)> handle; ///< called for each line
        std::string tooLong;                                        ///< to a line of more than kMaxLineBytes
        std::string cut;                                            ///< to a last line without '\n'
        std::string tooMany; ///< to a client beyond kMaxClients, which is then disconnected
    };

    LineServer(NotifyTargetTaskIF* task, Responses responses);
    ~LineServer();
    LineServer(const LineServer&) = delete;
    LineServer& operator=(const LineServer&) = delete;

    /// Returns false, with the reason in `error`, if the socket cannot be created; see ListeningSocket.
    [[nodiscard]] bool Open(const std::string& path, std::string& error);
    /// Sends `line` to every client.
    void Broadcast(const std::string& line);
    /// Disconnects the clients and removes the file. No callback runs afterwards.
    void Close();

    static constexpr std::size_t kMaxLineBytes = std::size_t{64} << 10U;
    static constexpr std::size_t kMaxClients = 16;
    /// A client is disconnected if more than this is queued for it at a broadcast.
    static constexpr std::size_t kMaxUnreadBytes = std::size_t{1} << 20U;

private:
    class Client;
    struct Impl;
    void AddClient(int descriptor);
    void Drop(const std::shared_ptr<Client>& client, const std::string& why);

    std::unique_ptr<Impl> m_impl;
};

} // namespace Console
