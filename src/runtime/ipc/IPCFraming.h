#pragma once

#include <cstddef>
#include <string>
#include <string_view>

class IPCMessageEnvelope;

/// The byte stream of a local socket, in both directions: each frame is 4 bytes of length, big-endian, and an envelope
/// of that many bytes. AppendFrame() is safe from any thread; a reader belongs to one thread at a time.
namespace IPCFraming
{

inline constexpr std::size_t kLengthBytes = 4;
inline constexpr std::size_t kMaxFrameBytes = std::size_t{4} * 1024 * 1024; ///< of the envelope

/// Appends the envelope's frame to `stream`. Returns false and appends nothing if it is over kMaxFrameBytes.
[[nodiscard]] bool AppendFrame(std::string& stream, const IPCMessageEnvelope& envelope);

/// Splits one byte stream into envelopes. Pieces may have any size.
///
///     reader.Append(bytes);
///     while (reader.Next(envelope) == FrameReader::ENVELOPE) { ... }
///     if (reader.Next(envelope) == FrameReader::FAULT) { ... reader.Fault() ... }
///
/// Buffers at most one unfinished frame: a length over kMaxFrameBytes is a fault before its bytes arrive. An empty
/// buffer keeps at most 1 KiB.
class FrameReader final
{
public:
    enum Result
    {
        MORE,     ///< the next envelope is incomplete
        ENVELOPE, ///< `envelope` has been replaced
        FAULT,    ///< the stream is unreadable from here on; every later call returns FAULT
    };

    void Append(std::string_view bytes);
    [[nodiscard]] Result Next(IPCMessageEnvelope& envelope);

    /// The reason of a FAULT, for a log line: "a frame of 4294967295 bytes". Empty without a fault.
    const std::string& Fault() const
    {
        return m_fault;
    }

private:
    void DropConsumed();

    std::string m_bytes;
    std::size_t m_consumed = 0; ///< bytes at the start of m_bytes
    std::string m_fault;
};

} // namespace IPCFraming
