#include "WebSocketConnection.h"

#include <openssl/evp.h>
#include <openssl/sha.h>

#include <array>
#include <cctype>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <utility>

#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

namespace
{

constexpr std::size_t kMaxHandshakeBytes = 8192;
constexpr std::size_t kMaxControlBytes = 125;
constexpr int kReadsAtOnce = 16; // then the other connections have their turn

constexpr unsigned int kContinuation = 0;
constexpr unsigned int kText = 1;
constexpr unsigned int kBinary = 2;
constexpr unsigned int kClose = 8;
constexpr unsigned int kPing = 9;
constexpr unsigned int kPong = 10;

const std::string s_closeNormal = "\x03\xe8";        // 1000
const std::string s_closeProtocolError = "\x03\xea"; // 1002
const std::string s_closeTooBig = "\x03\xf1";        // 1009

template <std::size_t size>
std::string Base64(const std::array<unsigned char, size>& bytes)
{
    std::array<unsigned char, 4 * ((size + 2) / 3) + 1> text{};
    ::EVP_EncodeBlock(text.data(), bytes.data(), static_cast<int>(size));
    return reinterpret_cast<const char*>(text.data());
}

std::string LowerWithoutSpaces(const std::string& text)
{
    std::string lower;
    for (const char letter : text)
    {
        if (letter != ' ' && letter != '\t')
        {
            lower += static_cast<char>(std::tolower(static_cast<unsigned char>(letter)));
        }
    }
    return lower;
}

} // namespace

WebSocketConnection::WebSocketConnection(const std::string& host, int port, const std::string& subProtocol)
{
    std::array<unsigned char, 16> random{};
    ::getentropy(random.data(), random.size());
    const std::string key = Base64(random);
    const std::string proof = key + "258EAFA5-E914-47DA-95CA-C5AB0DC85B11";
    std::array<unsigned char, SHA_DIGEST_LENGTH> digest{};
    ::SHA1(reinterpret_cast<const unsigned char*>(proof.data()), proof.size(), digest.data());
    m_proof = LowerWithoutSpaces("\r\nSec-WebSocket-Accept:" + Base64(digest) + "\r\n");
    m_agreement = LowerWithoutSpaces("\r\nSec-WebSocket-Protocol:" + subProtocol + "\r\n");
    m_output = "GET / HTTP/1.1\r\nHost: " + host + ":" + std::to_string(port) +
               "\r\nUpgrade: websocket\r\nConnection: Upgrade\r\nSec-WebSocket-Key: " + key +
               "\r\nSec-WebSocket-Version: 13\r\nSec-WebSocket-Protocol: " + subProtocol + "\r\n\r\n";
    Open(host, std::to_string(port));
}

WebSocketConnection::~WebSocketConnection()
{
    if (m_output.empty())
    {
        Queue(kClose, s_closeNormal);
        Write();
    }
    if (m_descriptor >= 0)
    {
        ::close(m_descriptor);
    }
}

void WebSocketConnection::Open(const std::string& host, const std::string& port)
{
    addrinfo hints{};
    hints.ai_socktype = SOCK_STREAM;
    hints.ai_flags = AI_NUMERICSERV | AI_NUMERICHOST;
    addrinfo* found = nullptr;
    int result = ::getaddrinfo(host == "localhost" ? "127.0.0.1" : host.c_str(), port.c_str(), &hints, &found);
    if (result == EAI_NONAME)
    {
        hints.ai_flags = AI_NUMERICSERV;
        result = ::getaddrinfo(host.c_str(), port.c_str(), &hints, &found);
    }
    if (result != 0)
    {
        Fail(::gai_strerror(result));
        return;
    }
    m_descriptor = ::socket(found->ai_family, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    const int on = 1;
    ::setsockopt(m_descriptor, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    if (::connect(m_descriptor, found->ai_addr, found->ai_addrlen) != 0 && errno != EINPROGRESS)
    {
        Fail(std::strerror(errno));
    }
    ::freeaddrinfo(found);
}

pollfd WebSocketConnection::WhatToPoll() const
{
    return {m_descriptor, static_cast<short>(POLLIN | (m_output.empty() ? 0 : POLLOUT)), 0};
}

void WebSocketConnection::Step(short events, std::vector<std::string>& messages)
{
    if (m_phase == Phase::CONNECTING && events != 0)
    {
        int error = 0;
        socklen_t size = sizeof error;
        ::getsockopt(m_descriptor, SOL_SOCKET, SO_ERROR, &error, &size);
        if (error != 0)
        {
            Fail(std::strerror(error));
            return;
        }
        m_phase = Phase::UPGRADING;
    }
    if (m_phase != Phase::CONNECTING && (events & (POLLIN | POLLHUP | POLLERR)) != 0)
    {
        Read(messages);
    }
    Write();
}

void WebSocketConnection::Read(std::vector<std::string>& messages)
{
    std::array<char, 64U << 10U> bytes; // NOLINT(cppcoreguidelines-pro-type-member-init): filled before it is read
    for (int turn = 0; turn < kReadsAtOnce && m_phase != Phase::ENDED; ++turn)
    {
        const ssize_t size = ::recv(m_descriptor, bytes.data(), bytes.size(), 0);
        if (size < 0 && (errno == EAGAIN || errno == EINTR))
        {
            return; // poll tells again
        }
        if (size <= 0)
        {
            Fail(size == 0 ? "the gateway ended it" : std::strerror(errno));
            return;
        }
        m_input.append(bytes.data(), static_cast<std::size_t>(size));
        if (m_phase == Phase::UPGRADING)
        {
            TakeHandshake();
        }
        while (m_phase == Phase::UP && TakeFrame(messages))
        {
        }
        m_input.erase(0, std::exchange(m_taken, 0));
    }
}

void WebSocketConnection::TakeHandshake()
{
    const std::size_t end = m_input.find("\r\n\r\n");
    if (end == std::string::npos)
    {
        if (m_input.size() > kMaxHandshakeBytes)
        {
            Fail("no end of the handshake");
        }
        return;
    }
    const std::string head = LowerWithoutSpaces(m_input.substr(0, end + 2));
    if (!head.starts_with("http/1.1101") || head.find(m_proof) == std::string::npos ||
        head.find(m_agreement) == std::string::npos)
    {
        Fail("the gateway refused the handshake");
        return;
    }
    m_taken = end + 4;
    m_phase = Phase::UP;
}

/// False where there is no whole one.
bool WebSocketConnection::TakeFrame(std::vector<std::string>& messages)
{
    const auto* const bytes = reinterpret_cast<const unsigned char*>(m_input.data()) + m_taken;
    const std::size_t available = m_input.size() - m_taken;
    const std::size_t shortSize = available < 2 ? 0 : bytes[1] & 0x7FU;
    const std::size_t head = shortSize == 127 ? 10 : shortSize == 126 ? 4 : 2;
    if (available < head)
    {
        return false;
    }
    const unsigned int opcode = bytes[0] & 0x0FU;
    const bool isFinal = (bytes[0] & 0x80U) != 0;
    const bool isControl = opcode >= kClose;
    const bool isMasked = (bytes[1] & 0x80U) != 0; // which a server never does
    if ((bytes[0] & 0x70U) != 0 || isMasked || (isControl && (!isFinal || shortSize > kMaxControlBytes)))
    {
        Fail("a frame that breaks the protocol", s_closeProtocolError);
        return false;
    }
    std::uint64_t size = head == 2 ? shortSize : 0;
    for (std::size_t at = 2; at < head; ++at)
    {
        size = (size << 8U) | bytes[at];
    }
    if (size > kMaxMessageBytes - (isControl ? 0 : m_fragments.size()))
    {
        Fail("a message of more than 4 MiB", s_closeTooBig);
        return false;
    }
    if (available - head < size)
    {
        return false;
    }
    const std::string payload = m_input.substr(m_taken + head, size);
    m_taken += head + size;
    TakePayload(opcode, isFinal, payload, messages);
    return true;
}

void WebSocketConnection::TakePayload(unsigned int opcode, bool isFinal, const std::string& payload,
                                      std::vector<std::string>& messages)
{
    if (opcode == kPing)
    {
        Queue(kPong, payload);
    }
    else if (opcode == kClose)
    {
        Fail("the gateway closed it", s_closeNormal);
    }
    else if (opcode <= kBinary && (opcode == kContinuation) == (m_fragmentsOpcode != 0))
    {
        m_fragments += payload;
        const unsigned int kind = opcode == kContinuation ? m_fragmentsOpcode : opcode;
        m_fragmentsOpcode = isFinal ? 0 : kind;
        if (isFinal)
        {
            std::string message = std::exchange(m_fragments, {});
            if (kind == kText)
            {
                messages.push_back(std::move(message));
            }
        }
    }
    else if (opcode != kPong)
    {
        Fail("a frame that breaks the protocol", s_closeProtocolError);
    }
}

void WebSocketConnection::Send(const std::string& text)
{
    Queue(kText, text);
}

void WebSocketConnection::Queue(unsigned int opcode, const std::string& payload)
{
    if (m_phase != Phase::UP)
    {
        return;
    }
    if (m_output.size() - m_written > kMaxQueuedBytes)
    {
        Fail("the gateway does not read");
        return;
    }
    const std::size_t size = payload.size();
    const std::size_t extended = size <= kMaxControlBytes ? 0 : size <= 0xFFFFU ? 2 : 8;
    m_output += static_cast<char>(0x80U | opcode);
    m_output += static_cast<char>(0x80U | (extended == 0 ? size : extended == 2 ? 126U : 127U));
    for (std::size_t left = extended; left > 0; --left)
    {
        m_output += static_cast<char>((size >> (8 * (left - 1))) & 0xFFU);
    }
    std::array<char, 4> mask{};
    ::getentropy(mask.data(), mask.size());
    m_output.append(mask.data(), mask.size());
    char* const masked = m_output.append(payload).data() + m_output.size() - size;
    for (std::size_t at = 0; at < size; ++at)
    {
        masked[at] = static_cast<char>(masked[at] ^ mask[at % mask.size()]);
    }
}

void WebSocketConnection::Write()
{
    while ((m_phase == Phase::UPGRADING || m_phase == Phase::UP) && m_written < m_output.size())
    {
        const ssize_t size =
            ::send(m_descriptor, m_output.data() + m_written, m_output.size() - m_written, MSG_NOSIGNAL);
        if (size < 0 && (errno == EAGAIN || errno == EINTR))
        {
            m_output.erase(0, std::exchange(m_written, 0));
            return; // poll tells again
        }
        if (size < 0)
        {
            Fail(std::strerror(errno));
            return;
        }
        m_written += static_cast<std::size_t>(size);
    }
    if (m_phase != Phase::CONNECTING)
    {
        m_output = {}; // and its memory: a connection at rest is small
        m_written = 0;
    }
}

bool WebSocketConnection::IsUp() const
{
    return m_phase == Phase::UP;
}

std::size_t WebSocketConnection::QueuedBytes() const
{
    return m_output.size() - m_written;
}

const std::string& WebSocketConnection::Failure() const
{
    return m_failure;
}

void WebSocketConnection::Fail(const std::string& reason, const std::string& closeCode)
{
    m_failure = m_failure.empty() ? reason : m_failure;
    if (!closeCode.empty())
    {
        Queue(kClose, closeCode);
        Write();
    }
    m_phase = Phase::ENDED;
}
