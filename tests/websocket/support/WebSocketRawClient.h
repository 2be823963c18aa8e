#pragma once

#include <gtest/gtest.h>

#include <array>
#include <cstdint>
#include <string>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

/// A TCP client that sends any bytes, well-formed or not.
class WebSocketRawClient final
{
public:
    explicit WebSocketRawClient(std::uint16_t port, int receiveBuffer = 1 << 16)
        : m_socket(::socket(AF_INET, SOCK_STREAM, 0))
    {
        const timeval limit{10, 0};
        setsockopt(m_socket, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof(limit));
        setsockopt(m_socket, SOL_SOCKET, SO_RCVBUF, &receiveBuffer, sizeof(receiveBuffer));
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_port = htons(port);
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        EXPECT_EQ(::connect(m_socket, reinterpret_cast<const sockaddr*>(&address), sizeof(address)), 0);
    }
    ~WebSocketRawClient()
    {
        ::close(m_socket);
    }
    WebSocketRawClient(const WebSocketRawClient&) = delete;
    WebSocketRawClient& operator=(const WebSocketRawClient&) = delete;

    void Send(const std::string& bytes) const
    {
        ::send(m_socket, bytes.data(), bytes.size(), MSG_NOSIGNAL);
    }
    /// Receives until `end` has come, the peer closes or 10 s pass without data.
    std::string Receive(const std::string& end = {}) const
    {
        std::string all;
        std::array<char, 65536> buffer;
        for (ssize_t size = 1; size > 0 && (end.empty() || all.find(end) == std::string::npos);)
        {
            size = ::recv(m_socket, buffer.data(), buffer.size(), 0);
            all.append(buffer.data(), size > 0 ? static_cast<std::size_t>(size) : 0);
        }
        return all;
    }
    void Open() const
    {
        Send("GET / HTTP/1.1\r\nHost: localhost\r\nUpgrade: websocket\r\nConnection: Upgrade\r\n"
             "Sec-WebSocket-Key: dGhlIHNhbXBsZSBub25jZQ==\r\nSec-WebSocket-Version: 13\r\n"
             "Sec-WebSocket-Protocol: tarsier\r\n\r\n");
        EXPECT_NE(Receive("\r\n\r\n").find(" 101 "), std::string::npos);
    }
    /// A masked frame of at most 125 bytes with an all-zero mask. `opcode`: 1 text, 2 binary.
    static std::string Frame(int opcode, const std::string& payload)
    {
        return std::string(1, static_cast<char>(0x80 | opcode)) + static_cast<char>(0x80 | payload.size()) +
               std::string(4, '\0') + payload;
    }

private:
    const int m_socket;
};
