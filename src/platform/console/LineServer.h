#pragma once

#include <chrono>
#include <cstddef>
#include <functional>
#include <memory>
#include <string>

class NotifyTargetTaskIF;

namespace Console
{

/// A Unix socket on which each line gets one line as its answer. Knows nothing of what the lines say.
/// Task: everything, the destructor too, is on `task`, which serves the sockets; only the construction may be
/// elsewhere. Owner: a std::shared_ptr.
///
/// Design: a client is asked for its next line only when the answer to the last one has gone out, so that one who does
/// not read costs an answer and no more. What the service sends by itself is all that can pile up, and is bounded.
/// Between two lines of one client everybody else has his turn, the task's own entries included.
class LineServer final : public std::enable_shared_from_this<LineServer>
{
public:
    using Answer = std::function<std::string(const std::string& line)>; ///< both without the line's end

    struct Answers
    {
        Answer line;         ///< for each line
        std::string tooLong; ///< for one of more than kMaxLineBytes
        std::string cut;     ///< for one that the client left without its end
        std::string tooMany; ///< for a client beyond kMaxClients, who gets nothing else
    };

    LineServer(NotifyTargetTaskIF* task, Answers answers);
    ~LineServer();
    LineServer(const LineServer&) = delete;
    LineServer& operator=(const LineServer&) = delete;

    /// False, with the reason in `error`, where there can be no socket; see ListeningSocket.
    [[nodiscard]] bool Open(const std::string& path, std::string& error);
    /// To every client.
    void Broadcast(const std::string& line);
    /// Drops the clients and removes the file. Nothing is called from then on.
    void Close();

    static constexpr std::size_t kMaxLineBytes = std::size_t{64} << 10U;
    static constexpr std::size_t kMaxClients = 16;
    /// A client for whom more than this waits at a broadcast is dropped.
    static constexpr std::size_t kMaxUnreadBytes = std::size_t{1} << 20U;
    /// Pause in accepting when descriptors or memory have run out.
    static constexpr std::chrono::milliseconds kAcceptPause{500};

private:
    class Session;
    struct Impl;
    void Accept();
    void Take();
    void Drop(const std::shared_ptr<Session>& session, const std::string& why);

    std::unique_ptr<Impl> m_impl;
};

} // namespace Console
