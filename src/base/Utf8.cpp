#include "base/Utf8.h"

#include <cstdint>
#include <cstring>

namespace Utf8
{

std::size_t SequenceLength(std::string_view text, std::size_t at)
{
    const auto byte = [text](std::size_t index) -> unsigned
    { return index < text.size() ? static_cast<std::uint8_t>(text[index]) : 0U; };
    const auto within = [](unsigned value, unsigned low, unsigned high) { return low <= value && value <= high; };
    const unsigned first = byte(at);
    if (first < 0x80)
    {
        return at < text.size() ? 1 : 0;
    }
    const std::size_t length = within(first, 0xC2, 0xDF)   ? 2
                               : within(first, 0xE0, 0xEF) ? 3
                               : within(first, 0xF0, 0xF4) ? 4
                                                           : 0;
    const unsigned low = first == 0xE0 ? 0xA0 : first == 0xF0 ? 0x90 : 0x80;
    const unsigned high = first == 0xED ? 0x9F : first == 0xF4 ? 0x8F : 0xBF;
    for (std::size_t index = 1; index < length; ++index)
    {
        if (!within(byte(at + index), index == 1 ? low : 0x80, index == 1 ? high : 0xBF))
        {
            return 0;
        }
    }
    return length;
}

bool IsValid(std::string_view text)
{
    constexpr std::uint64_t kHighBits = 0x8080808080808080U;
    for (std::size_t at = 0; at < text.size();)
    {
        std::uint64_t eight = kHighBits;
        if (at + sizeof eight <= text.size())
        {
            std::memcpy(&eight, text.data() + at, sizeof eight);
        }
        if ((eight & kHighBits) == 0) // eight ASCII characters, the usual case
        {
            at += sizeof eight;
            continue;
        }
        const std::size_t length = SequenceLength(text, at);
        if (length == 0)
        {
            return false;
        }
        at += length;
    }
    return true;
}

std::string ReplaceInvalid(std::string_view text)
{
    std::string result;
    for (std::size_t at = 0; at < text.size();)
    {
        const std::size_t length = SequenceLength(text, at);
        if (length == 0)
        {
            result += "\xEF\xBF\xBD";
            ++at;
            continue;
        }
        result.append(text, at, length);
        at += length;
    }
    return result;
}

} // namespace Utf8
