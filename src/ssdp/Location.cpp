#include "ssdp/Location.h"

#include <algorithm>
#include <charconv>
#include <system_error>

namespace SonarixService
{

namespace
{

bool IsPort(std::string_view text)
{
    unsigned port = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), port);
    return error == std::errc() && end == text.data() + text.size() && port >= 1 && port <= 65535;
}

} // namespace

std::optional<IPv4> HostOfLocation(std::string_view location)
{
    if (location.size() > kMaxLocationBytes ||
        !std::all_of(location.begin(), location.end(), [](char c) { return c > ' ' && c <= '~'; }))
    {
        return std::nullopt;
    }
    for (const std::string_view scheme : {"http://", "https://"})
    {
        if (location.starts_with(scheme))
        {
            location.remove_prefix(scheme.size());
            const std::string_view authority = location.substr(0, location.find('/'));
            const std::size_t colon = authority.find(':');
            if (colon != std::string_view::npos && !IsPort(authority.substr(colon + 1)))
            {
                return std::nullopt;
            }
            return ParseIPv4(authority.substr(0, colon));
        }
    }
    return std::nullopt;
}

} // namespace SonarixService
