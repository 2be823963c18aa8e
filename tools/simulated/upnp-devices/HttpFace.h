#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <limits>
#include <memory>
#include <string>

class NotifyTargetTaskIF;

/// What a web server says before it closes the connection.
struct HttpAnswer
{
    enum class Pace : std::uint8_t
    {
        AT_ONCE,
        BYTE_A_SECOND,
        NEVER, ///< the connection stays open, until the other side closes it
    };

    std::string bytes; ///< head and body
    Pace pace = Pace::AT_ONCE;
    std::uint64_t filler = 0; ///< bytes more of the body, as long as they are taken

    static constexpr std::uint64_t kEndless = std::numeric_limits<std::uint64_t>::max();
};

/// A small web server at one address and port. Task: everything on the one given, callbacks too.
/// A neighbour can cost it kMaxConnections and no more.
class HttpFace final
{
public:
    /// What it says to a request of this path; called for each.
    using Answering = std::function<HttpAnswer(const std::string& path)>;

    HttpFace(NotifyTargetTaskIF* task, std::string address, std::uint16_t port, Answering answering);
    ~HttpFace();
    HttpFace(const HttpFace&) = delete;
    HttpFace& operator=(const HttpFace&) = delete;

    /// False, with the reason in `error`. Listening twice is harmless.
    bool Listen(std::string& error);
    /// Closes the port and all connections.
    void Close();

    std::size_t Connections() const;

    static constexpr std::size_t kMaxConnections = 64;
    static constexpr std::size_t kMaxRequestBytes = 8192;

private:
    struct Impl;
    std::shared_ptr<Impl> m_impl; ///< handlers that still wait hold it weakly
};
