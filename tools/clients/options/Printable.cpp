#include "tools/clients/options/Printable.h"

#include "base/Utf8.h"

std::string Printable(const std::string& text)
{
    const std::string valid = Utf8::ReplaceInvalid(text);
    std::string printable;
    for (std::size_t at = 0; at < valid.size(); ++at)
    {
        const auto byte = static_cast<unsigned char>(valid[at]);
        const bool isC1 = byte == 0xC2 && at + 1 < valid.size() && static_cast<unsigned char>(valid[at + 1]) < 0xA0;
        if (isC1)
        {
            ++at;
        }
        printable += byte < 0x20 || byte == 0x7F || isC1 ? '?' : valid[at];
    }
    return printable;
}
