#include "examples/markup_nlohmann/Base64.h"

#include <cstdint>

namespace
{

constexpr char kAlphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

int ValueOf(char letter)
{
    const char plain = letter == '-' ? '+' : letter == '_' ? '/' : letter;
    const std::size_t at = std::string_view(kAlphabet).find(plain);
    return at == std::string_view::npos ? -1 : static_cast<int>(at);
}

} // namespace

std::string Base64::Encode(const std::string& bytes)
{
    std::string text;
    std::uint32_t bits = 0;
    int count = 0;
    for (const char byte : bytes)
    {
        bits = (bits << 8U) | static_cast<unsigned char>(byte);
        for (count += 8; count >= 6; count -= 6)
        {
            text += kAlphabet[(bits >> (count - 6)) & 63U];
        }
    }
    if (count > 0)
    {
        text += kAlphabet[(bits << (6 - count)) & 63U];
    }
    text.append((4 - text.size() % 4) % 4, '=');
    return text;
}

std::optional<std::string> Base64::Decode(const std::string& text)
{
    const std::size_t end = text.find_last_not_of('=') + 1; // 0 if there are only =
    if (text.size() - end > 2 || end % 4 == 1 || (text.size() != end && text.size() % 4 != 0))
    {
        return std::nullopt;
    }
    std::string bytes;
    std::uint32_t bits = 0;
    int count = 0;
    for (const char letter : text.substr(0, end))
    {
        const int value = ValueOf(letter);
        if (value < 0)
        {
            return std::nullopt;
        }
        bits = (bits << 6U) | static_cast<std::uint32_t>(value);
        count += 6;
        if (count >= 8)
        {
            count -= 8;
            bytes += static_cast<char>((bits >> count) & 255U);
        }
    }
    return bytes;
}
