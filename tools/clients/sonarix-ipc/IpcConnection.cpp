#include "tools/clients/sonarix-ipc/IpcConnection.h"

IpcConnection::IpcConnection(const std::string& path)
    : m_socket(path)
{
}

bool IpcConnection::Open()
{
    Close();
    return m_socket.Open();
}

void IpcConnection::Close()
{
    m_socket.Close();
    m_reader = {};
}

void IpcConnection::Send(std::uint32_t id, std::uint32_t tid, const google::protobuf::Message& payload)
{
    IPCMessageEnvelope envelope;
    envelope.SetPayload(payload);
    envelope->set_id(id);
    envelope->set_tid(tid);
    envelope->set_kind(IPCMessageEnvelopeBase::REQUEST);
    std::string frame;
    if (IPCFraming::AppendFrame(frame, envelope)) // a command line is shorter than the frame limit
    {
        m_socket.Send(frame);
    }
}

LocalSocket::Event IpcConnection::Wait(IPCMessageEnvelope& message, int other, LocalSocket::Clock::time_point until)
{
    for (;;)
    {
        const auto result = m_socket.IsOpen() ? m_reader.Next(message) : IPCFraming::FrameReader::MORE;
        if (result == IPCFraming::FrameReader::ENVELOPE)
        {
            return LocalSocket::Event::RECEIVED;
        }
        std::string bytes;
        const LocalSocket::Event event =
            result == IPCFraming::FrameReader::FAULT ? LocalSocket::Event::CLOSED : m_socket.Wait(bytes, other, until);
        if (event == LocalSocket::Event::CLOSED)
        {
            Close();
        }
        if (event != LocalSocket::Event::RECEIVED)
        {
            return event;
        }
        m_reader.Append(bytes);
    }
}
