#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <limits>
#include <memory>
#include <string>

class NotifyTargetTaskIF;

/// A response of the server, which closes the connection afterwards.
struct HttpResponse
{
    enum class Pace : std::uint8_t
    {
        AT_ONCE,
        BYTE_A_SECOND,
        NEVER, ///< sends nothing and keeps the connection open until the client closes it
    };

    std::string bytes; ///< head and body
    Pace pace = Pace::AT_ONCE;
    std::uint64_t filler = 0; ///< further bytes of the body

    static constexpr std::uint64_t kEndless = std::numeric_limits<std::uint64_t>::max();
};

/// An HTTP server at one address and port. Task: all calls and callbacks run on `task`.
/// Accepts at most kMaxConnections.
class FakeHttpServer final
{
public:
    /// Returns the response to a request of this path.
    using Answering = std::function<HttpResponse(const std::string& path)>;

    FakeHttpServer(NotifyTargetTaskIF* task, const std::string& address, std::uint16_t port, Answering answering);
    ~FakeHttpServer();
    FakeHttpServer(const FakeHttpServer&) = delete;
    FakeHttpServer& operator=(const FakeHttpServer&) = delete;

    /// Returns false and sets `error` on failure. Does nothing if it listens already.
    bool Listen(std::string& error);
    /// Closes the port and all connections.
    void Close();

    std::size_t Connections() const;

    static constexpr std::size_t kMaxConnections = 64;
    static constexpr std::size_t kMaxRequestBytes = 8192;

private:
    struct Impl;
    const std::unique_ptr<Impl> m_impl;
};
