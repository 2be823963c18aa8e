#pragma once

#include <array>
#include <chrono>
#include <cstdint>
#include <string>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

/// A TCP client that says exactly what a test wants, well-formed or not.
class WebSocketRawClient final
{
public:
    explicit WebSocketRawClient(int receiveBuffer = 0)
        : m_socket(::socket(AF_INET, SOCK_STREAM, 0))
    {
        const timeval limit{10, 0};
        setsockopt(m_socket, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof(limit));
        if (receiveBuffer != 0)
        {
            setsockopt(m_socket, SOL_SOCKET, SO_RCVBUF, &receiveBuffer, sizeof(receiveBuffer));
        }
    }
    ~WebSocketRawClient()
    {
        Close();
    }
    WebSocketRawClient(const WebSocketRawClient&) = delete;
    WebSocketRawClient& operator=(const WebSocketRawClient&) = delete;

    bool Connect(std::uint16_t port)
    {
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_port = htons(port);
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        return ::connect(m_socket, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) == 0;
    }
    void Close()
    {
        if (m_socket >= 0)
        {
            ::close(m_socket);
            m_socket = -1;
        }
    }
    void Send(const std::string& bytes) const
    {
        ::send(m_socket, bytes.data(), bytes.size(), MSG_NOSIGNAL);
    }
    /// What has come by now, at least one byte; empty where the peer has closed (or after 10 s of silence).
    std::string Receive() const
    {
        std::array<char, 65536> buffer;
        const ssize_t size = ::recv(m_socket, buffer.data(), buffer.size(), 0);
        return size > 0 ? std::string(buffer.data(), static_cast<std::size_t>(size)) : std::string();
    }
    /// Everything until the peer closes.
    std::string ReceiveAll() const
    {
        std::string all;
        for (std::string part = Receive(); !part.empty(); part = Receive())
        {
            all += part;
        }
        return all;
    }

    static std::string Upgrade(const std::string& subProtocol = "tarsier")
    {
        return "GET / HTTP/1.1\r\nHost: localhost\r\nUpgrade: websocket\r\nConnection: Upgrade\r\n"
               "Sec-WebSocket-Key: dGhlIHNhbXBsZSBub25jZQ==\r\nSec-WebSocket-Version: 13\r\n"
               "Sec-WebSocket-Protocol: " +
               subProtocol + "\r\n\r\n";
    }
    /// A whole masked frame, the mask all zero. `opcode` 1 text, 2 binary.
    static std::string Frame(int opcode, const std::string& payload)
    {
        std::string frame(1, static_cast<char>(0x80 | opcode));
        if (payload.size() < 126)
        {
            frame += static_cast<char>(0x80 | payload.size());
        }
        else
        {
            frame += static_cast<char>(0x80 | 126);
            frame += static_cast<char>(payload.size() >> 8U);
            frame += static_cast<char>(payload.size() & 0xFFU);
        }
        return frame + std::string(4, '\0') + payload;
    }

    bool Open(std::uint16_t port)
    {
        if (!Connect(port))
        {
            return false;
        }
        Send(Upgrade());
        return Receive().find(" 101 ") != std::string::npos;
    }

private:
    int m_socket;
};
