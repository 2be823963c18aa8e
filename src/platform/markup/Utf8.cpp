#include "Utf8.h"

#include <cstddef>
#include <cstdint>

namespace
{

struct Lead
{
    std::size_t length; ///< of the whole sequence; 0: no lead byte
    std::uint8_t low;   ///< bounds of the second byte, which keep out overlong forms and surrogates
    std::uint8_t high;
};

Lead Classify(std::uint8_t byte)
{
    if (byte < 0x80)
    {
        return {1, 0, 0};
    }
    if (byte >= 0xC2 && byte <= 0xDF)
    {
        return {2, 0x80, 0xBF};
    }
    if (byte >= 0xE0 && byte <= 0xEF)
    {
        return {3, static_cast<std::uint8_t>(byte == 0xE0 ? 0xA0 : 0x80),
                static_cast<std::uint8_t>(byte == 0xED ? 0x9F : 0xBF)};
    }
    if (byte >= 0xF0 && byte <= 0xF4)
    {
        return {4, static_cast<std::uint8_t>(byte == 0xF0 ? 0x90 : 0x80),
                static_cast<std::uint8_t>(byte == 0xF4 ? 0x8F : 0xBF)};
    }
    return {0, 0, 0};
}

} // namespace

bool ProtoToMarkup::IsUtf8(std::string_view text)
{
    for (std::size_t at = 0; at < text.size();)
    {
        const Lead lead = Classify(static_cast<std::uint8_t>(text[at]));
        if (lead.length == 0 || text.size() - at < lead.length)
        {
            return false;
        }
        for (std::size_t offset = 1; offset < lead.length; ++offset)
        {
            const auto byte = static_cast<std::uint8_t>(text[at + offset]);
            const std::uint8_t low = offset == 1 ? lead.low : 0x80;
            const std::uint8_t high = offset == 1 ? lead.high : 0xBF;
            if (byte < low || byte > high)
            {
                return false;
            }
        }
        at += lead.length;
    }
    return true;
}
