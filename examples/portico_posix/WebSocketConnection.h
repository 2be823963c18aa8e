#pragma once

#include <cstddef>
#include <string>
#include <vector>

struct pollfd;

/// One WebSocket connection to a gateway, over a non-blocking socket: text messages, pings, the close. Its owner
/// polls and calls Step(). Of one thread. Blocks only to look up a host that is neither an address nor "localhost".
class WebSocketConnection final
{
public:
    static constexpr std::size_t kMaxMessageBytes = 4U << 20U; ///< a larger one ends the connection
    static constexpr std::size_t kMaxQueuedBytes = 16U << 20U; ///< so does a peer that leaves this much unread

    /// Begins to connect.
    WebSocketConnection(const std::string& host, int port, const std::string& subProtocol);
    WebSocketConnection(const WebSocketConnection&) = delete;
    WebSocketConnection& operator=(const WebSocketConnection&) = delete;
    ~WebSocketConnection(); ///< says good-bye where that goes out at once

    pollfd WhatToPoll() const;
    /// Moves bytes, after poll() told `events`; adds the messages that are whole.
    void Step(short events, std::vector<std::string>& messages);
    /// Queues a message; nothing happens before IsUp() or after the end.
    void Send(const std::string& text);

    bool IsUp() const;                  ///< the handshake is done
    std::size_t QueuedBytes() const;    ///< that the gateway has not read yet
    const std::string& Failure() const; ///< why it ended; empty while it lives

private:
    enum class Phase
    {
        CONNECTING,
        UPGRADING,
        UP,
        ENDED,
    };

    void Open(const std::string& host, const std::string& port);
    void Read(std::vector<std::string>& messages);
    void Write();
    void TakeHandshake();
    bool TakeFrame(std::vector<std::string>& messages);
    void TakePayload(unsigned int opcode, bool isFinal, const std::string& payload, std::vector<std::string>& messages);
    void Queue(unsigned int opcode, const std::string& payload);
    void Fail(const std::string& reason, const std::string& closeCode = {});

    Phase m_phase = Phase::CONNECTING;
    int m_descriptor = -1;
    std::string m_proof; ///< the lines of an answer to our handshake, in lower case and without spaces
    std::string m_agreement;
    std::string m_failure;
    std::string m_input;
    std::string m_output;
    std::size_t m_taken = 0;   ///< of the input
    std::size_t m_written = 0; ///< of the output
    std::string m_fragments;
    unsigned int m_fragmentsOpcode = 0; ///< 0: none
};
