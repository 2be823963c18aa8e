#include "runtime/ipc/IPCFraming.h"

#include "runtime/ipc/IPCMessageEnvelope.h"

#include <cstdint>

namespace
{

constexpr std::size_t kKeptBytes = 1024;

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
    const std::size_t length = envelope->ByteSizeLong();
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
    envelope->SerializeWithCachedSizesToArray(reinterpret_cast<std::uint8_t*>(&stream[begin + kLengthBytes]));
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
    const char* const frame = m_bytes.data() + m_consumed;
    const std::size_t left = m_bytes.size() - m_consumed;
    const std::size_t length = left < kLengthBytes ? 0 : LengthAt(frame);
    if (left < kLengthBytes || (length <= kMaxFrameBytes && left - kLengthBytes < length))
    {
        DropConsumed();
        return MORE;
    }
    if (length > kMaxFrameBytes)
    {
        m_fault = "a frame of " + std::to_string(length) + " bytes";
    }
    else if (!envelope->ParseFromArray(frame + kLengthBytes, static_cast<int>(length)))
    {
        m_fault = "a frame that is not an envelope";
    }
    if (!m_fault.empty())
    {
        std::string().swap(m_bytes);
        m_consumed = 0;
        return FAULT;
    }
    m_consumed += kLengthBytes + length;
    return ENVELOPE;
}

/// Called only when no complete frame is left, so that each byte is moved at most once.
void FrameReader::DropConsumed()
{
    m_bytes.erase(0, m_consumed);
    m_consumed = 0;
    if (m_bytes.empty() && m_bytes.capacity() > kKeptBytes)
    {
        std::string().swap(m_bytes);
    }
}

} // namespace IPCFraming
