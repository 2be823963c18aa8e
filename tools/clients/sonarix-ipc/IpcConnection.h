#pragma once

#include "runtime/ipc/IPCFraming.h"
#include "runtime/ipc/IPCMessageEnvelope.h"
#include "tools/clients/options/LocalSocket.h"

#include <cstdint>
#include <string>

/// The connection to one local socket of the service: enveloped messages in both directions. For a single-threaded
/// program: operations block.
class IpcConnection final
{
public:
    explicit IpcConnection(const std::string& path);

    /// Closes an open connection first. Returns false, with errno, if no process listens.
    [[nodiscard]] bool Open();
    void Close();
    const LocalSocket& Socket() const
    {
        return m_socket;
    }

    /// If it fails, the next Wait() returns CLOSED.
    void Send(std::uint32_t id, std::uint32_t tid, const google::protobuf::Message& payload);

    /// Like LocalSocket::Wait(), but RECEIVED means a whole message, stored in `message`. A frame that is no message
    /// closes the connection.
    LocalSocket::Event Wait(IPCMessageEnvelope& message, int other, LocalSocket::Clock::time_point until);

private:
    LocalSocket m_socket;
    IPCFraming::FrameReader m_reader;
};
