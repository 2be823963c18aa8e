#pragma once

#include <cstddef>
#include <string>
#include <string_view>

class IPCMessageEnvelope;

/// How envelopes lie on a stream: 4 bytes of length, big-endian, and that many bytes of the envelope's binary form.
/// Both ends use it. Without state of its own, but for the reader; safe from any thread.
namespace IPCFraming
{

inline constexpr std::size_t kLengthBytes = 4;
inline constexpr std::size_t kMaxFrameBytes = std::size_t{4} * 1024 * 1024; ///< without the length

/// Appends the envelope's frame to `stream`. False, and nothing appended, where it is over kMaxFrameBytes.
[[nodiscard]] bool AppendFrame(std::string& stream, const IPCMessageEnvelope& envelope);

/// Takes the bytes of one stream as they come, in pieces of any size, and gives its envelopes.
///
///     reader.Append(bytes);
///     while (reader.Next(envelope) == FrameReader::ENVELOPE) { ... }
///     if (reader.Next(envelope) == FrameReader::FAULT) { ... reader.Fault() ... }
///
/// Holds what has come of an unfinished frame and never more than kMaxFrameBytes of it: a length that promises more is
/// a fault at once. Holds no memory between frames, but for a little.
class FrameReader final
{
public:
    enum Result
    {
        MORE,     ///< the next envelope has not come whole
        ENVELOPE, ///< one was taken
        FAULT,    ///< the stream is no use from here on; every further call says so
    };

    void Append(std::string_view bytes);
    [[nodiscard]] Result Next(IPCMessageEnvelope& envelope);

    /// What is wrong, as the end of a sentence: "a frame of 4294967295 bytes". Empty without a fault.
    const std::string& Fault() const
    {
        return m_fault;
    }

private:
    void Forget();

    std::string m_bytes;
    std::size_t m_taken = 0; ///< of m_bytes
    std::string m_fault;
};

} // namespace IPCFraming
