#include "runtime/ipc/IPCFraming.h"

#include "runtime/ipc/IPCMessageEnvelope.h"
#include "runtime/ipc/IPCMessageEnvelopeBase.pb.h"

#include <cstdint>

namespace
{

constexpr std::size_t kKeptBytes = 1024; ///< of the reader's buffer, between frames

IPCWire::IPCMessageEnvelopeBase ToWire(const IPCMessageEnvelope& envelope)
{
    IPCWire::IPCMessageEnvelopeBase wire;
    if (!envelope.metadata().empty())
    {
        wire.set_metadata(envelope.metadata());
    }
    if (envelope.has_payload_type())
    {
        wire.set_payload_type(envelope.payload_type());
    }
    wire.set_id(envelope.id());
    wire.set_tid(envelope.tid());
    wire.set_kind(static_cast<IPCWire::IPCMessageEnvelopeBase::Kind>(envelope.kind()));
    wire.set_payload(envelope.payload());
    return wire;
}

IPCMessageEnvelope FromWire(IPCWire::IPCMessageEnvelopeBase& wire)
{
    IPCMessageEnvelope envelope;
    envelope.set_metadata(std::move(*wire.mutable_metadata()));
    if (wire.has_payload_type())
    {
        envelope.set_payload_type(std::move(*wire.mutable_payload_type()));
    }
    envelope.set_id(wire.id());
    envelope.set_tid(wire.tid());
    envelope.set_kind(static_cast<IPCMessageEnvelope::Kind>(wire.kind()));
    envelope.set_payload(std::move(*wire.mutable_payload()));
    return envelope;
}

std::size_t LengthAt(const char* bytes)
{
    std::uint32_t length = 0;
    for (std::size_t index = 0; index < IPCFraming::kLengthBytes; ++index)
    {
        length = length << 8U | static_cast<unsigned char>(bytes[index]);
    }
    return length;
}

} // namespace

namespace IPCFraming
{

bool AppendFrame(std::string& stream, const IPCMessageEnvelope& envelope)
{
    const IPCWire::IPCMessageEnvelopeBase wire = ToWire(envelope);
    const std::size_t length = wire.ByteSizeLong();
    if (length > kMaxFrameBytes)
    {
        return false;
    }
    const std::size_t begin = stream.size();
    stream.resize(begin + kLengthBytes + length);
    for (std::size_t index = 0; index < kLengthBytes; ++index)
    {
        stream[begin + index] = static_cast<char>(length >> 8U * (kLengthBytes - 1 - index));
    }
    wire.SerializeWithCachedSizesToArray(reinterpret_cast<std::uint8_t*>(&stream[begin + kLengthBytes]));
    return true;
}

void FrameReader::Append(std::string_view bytes)
{
    if (m_fault.empty())
    {
        m_bytes.append(bytes);
    }
}

FrameReader::Result FrameReader::Next(IPCMessageEnvelope& envelope)
{
    if (!m_fault.empty())
    {
        return FAULT;
    }
    const std::size_t left = m_bytes.size() - m_taken;
    if (left < kLengthBytes)
    {
        Forget();
        return MORE;
    }
    const char* const frame = m_bytes.data() + m_taken;
    const std::size_t length = LengthAt(frame);
    if (length <= kMaxFrameBytes && left - kLengthBytes < length)
    {
        Forget();
        return MORE;
    }
    IPCWire::IPCMessageEnvelopeBase wire;
    if (length > kMaxFrameBytes)
    {
        m_fault = "a frame of " + std::to_string(length) + " bytes";
    }
    else if (!wire.ParseFromArray(frame + kLengthBytes, static_cast<int>(length)))
    {
        m_fault = "a frame that is no envelope";
    }
    if (!m_fault.empty())
    {
        std::string().swap(m_bytes);
        m_taken = 0;
        return FAULT;
    }
    envelope = FromWire(wire);
    m_taken += kLengthBytes + length;
    return ENVELOPE;
}

/// Gives up what has been taken; called when no whole frame is left, so that each byte is moved once.
void FrameReader::Forget()
{
    m_bytes.erase(0, m_taken);
    m_taken = 0;
    if (m_bytes.empty() && m_bytes.capacity() > kKeptBytes)
    {
        std::string().swap(m_bytes);
    }
}

} // namespace IPCFraming
