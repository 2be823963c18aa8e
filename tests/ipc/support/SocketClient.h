#pragma once

#include "runtime/ipc/ConnectorSocket.h"
#include "runtime/ipc/IPCFraming.h"
#include "runtime/ipc/IPCMessageEnvelope.h"

#include <google/protobuf/message.h>

#include <array>
#include <chrono>
#include <cstring>
#include <memory>
#include <optional>
#include <poll.h>
#include <stdexcept>
#include <string>
#include <string_view>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>
#include <utility>

/// A test client of the local sockets. Sends requests or arbitrary bytes.
///
///     SocketClient client(runDirectory + "/SonarixSsdpService");
///     client.Request(2, 7, SonarixPb::DiscoveredDeviceList());
///     EXPECT_EQ(client.Read()->tid(), 7u);
class SocketClient final
{
public:
    static constexpr std::chrono::milliseconds kLimit = std::chrono::seconds(20);

    explicit SocketClient(const std::string& path)
        : m_socket(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0))
    {
        const sockaddr_un address = AddressOf(path);
        if (::connect(m_socket, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0)
        {
            const std::string why = std::strerror(errno);
            Close();
            throw std::runtime_error(path + ": " + why);
        }
    }
    /// Takes the ownership of a connected socket.
    explicit SocketClient(int socket)
        : m_socket(socket)
    {
    }
    /// A connected pair: the first end for a router, the second for the test.
    static std::pair<std::shared_ptr<Network::ConnectorSocket>, SocketClient> Pair()
    {
        int sockets[2];
        if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, sockets) != 0)
        {
            throw std::runtime_error(std::strerror(errno));
        }
        return {std::make_shared<Network::ConnectorSocket>(sockets[0]), SocketClient(sockets[1])};
    }
    ~SocketClient()
    {
        Close();
    }
    SocketClient(SocketClient&& other) noexcept
        : m_socket(std::exchange(other.m_socket, -1))
        , m_reader(std::move(other.m_reader))
    {
    }
    SocketClient(const SocketClient&) = delete;
    SocketClient& operator=(const SocketClient&) = delete;

    void Close()
    {
        if (m_socket >= 0)
        {
            ::close(std::exchange(m_socket, -1));
        }
    }

    static sockaddr_un AddressOf(const std::string& path)
    {
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        std::strncpy(address.sun_path, path.c_str(), sizeof address.sun_path - 1);
        return address;
    }

    /// Returns false if the peer has closed its end.
    bool Write(std::string_view bytes) const
    {
        while (!bytes.empty())
        {
            const ssize_t count = ::send(m_socket, bytes.data(), bytes.size(), MSG_NOSIGNAL);
            if (count < 0)
            {
                return false;
            }
            bytes.remove_prefix(static_cast<std::size_t>(count));
        }
        return true;
    }

    static std::string Frame(const IPCMessageEnvelope& envelope)
    {
        std::string frame;
        if (!IPCFraming::AppendFrame(frame, envelope))
        {
            throw std::length_error("the frame exceeds the limit");
        }
        return frame;
    }
    static std::string RequestFrame(unsigned int id, unsigned int tid, const google::protobuf::Message& message)
    {
        IPCMessageEnvelope envelope;
        envelope.SetPayload(message);
        envelope->set_id(id);
        envelope->set_tid(tid);
        return Frame(envelope);
    }
    bool Request(unsigned int id, unsigned int tid, const google::protobuf::Message& message) const
    {
        return Write(RequestFrame(id, tid, message));
    }

    /// Returns the next envelope; nothing at the end of the stream or after `limit`.
    std::optional<IPCMessageEnvelope> Read(std::chrono::milliseconds limit = kLimit)
    {
        IPCMessageEnvelope envelope;
        while (m_reader.Next(envelope) != IPCFraming::FrameReader::ENVELOPE)
        {
            if (!ReadSome(limit))
            {
                return std::nullopt;
            }
        }
        return envelope;
    }
    /// Returns kind, id and tid of an envelope: "REJECT 2 7".
    static std::string HeadOf(const std::optional<IPCMessageEnvelope>& envelope)
    {
        static const char* const s_kinds[] = {"REQUEST ", "RESPONSE ", "NOTIFICATION ", "REJECT "};
        return envelope ? s_kinds[(*envelope)->kind()] + std::to_string((*envelope)->id()) + ' ' +
                              std::to_string((*envelope)->tid())
                        : "nothing";
    }
    /// The payload of the next envelope. Throws if it is not a T, or `head` is not empty and differs from HeadOf().
    template <class T>
    T ReadAs(const std::string& head = "")
    {
        const std::optional<IPCMessageEnvelope> envelope = Read();
        T message;
        if (!envelope || (*envelope)->payload_type() != T::descriptor()->name() || !envelope->GetPayload(message) ||
            (!head.empty() && HeadOf(envelope) != head))
        {
            throw std::runtime_error("no " + T::descriptor()->name() + " with " + head + " but " + HeadOf(envelope) +
                                     (envelope ? " \"" + (*envelope)->payload_type() + '"' : ""));
        }
        return message;
    }
    /// Discards everything up to the end of the stream. False if the end does not come within kLimit.
    bool AwaitEnd()
    {
        while (ReadSome(kLimit))
        {
        }
        return m_isAtEnd;
    }

private:
    bool ReadSome(std::chrono::milliseconds limit)
    {
        pollfd waiting{m_socket, POLLIN, 0};
        std::array<char, 65536> bytes;
        if (::poll(&waiting, 1, static_cast<int>(limit.count())) != 1)
        {
            return false;
        }
        const ssize_t count = ::recv(m_socket, bytes.data(), bytes.size(), 0);
        m_isAtEnd = count <= 0; // a reset also ends the stream
        m_reader.Append({bytes.data(), static_cast<std::size_t>(m_isAtEnd ? 0 : count)});
        return !m_isAtEnd;
    }

    int m_socket;
    IPCFraming::FrameReader m_reader;
    bool m_isAtEnd = false;
};
