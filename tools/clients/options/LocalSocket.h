#pragma once

#include <chrono>
#include <optional>
#include <string>
#include <string_view>

/// The client's end of a Unix stream socket. For a single-threaded program: operations block.
class LocalSocket final
{
public:
    using Clock = std::chrono::steady_clock;

    enum class Event
    {
        RECEIVED, ///< bytes, or what the caller makes of them: a whole message
        CLOSED,   ///< the peer has closed the connection; the socket is closed now
        OTHER,    ///< the other descriptor is readable
        TIMEOUT,
    };

    explicit LocalSocket(std::string path);
    ~LocalSocket();
    LocalSocket(const LocalSocket&) = delete;
    LocalSocket& operator=(const LocalSocket&) = delete;

    /// Closes an open connection first. Returns false, with errno, if no process listens.
    [[nodiscard]] bool Open();
    void Close();
    bool IsOpen() const
    {
        return m_descriptor >= 0;
    }
    int Descriptor() const ///< -1 while closed
    {
        return m_descriptor;
    }
    const std::string& Path() const
    {
        return m_path;
    }

    /// After a failure, the received bytes are still returned, then Receive() fails.
    void Send(std::string_view bytes);
    /// Waits for at least one byte and appends what has arrived. Returns false at the end of the stream.
    [[nodiscard]] bool Receive(std::string& bytes);
    /// Waits for bytes, which are appended to `bytes`, for the descriptor `other` (-1: none), or until `until`
    /// (nothing: without limit). `other` takes precedence. While closed, waits for the other two.
    Event Wait(std::string& bytes, int other, std::optional<Clock::time_point> until);

private:
    const std::string m_path;
    int m_descriptor = -1;
};
