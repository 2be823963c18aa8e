#pragma once

#include "ssdp/InterfaceAddresses.h"

#include <cstddef>
#include <optional>
#include <string_view>

namespace SonarixService
{

/// The common limit of browsers and servers for a URL. A LOCATION has less than 100 bytes.
constexpr std::size_t kMaxLocationBytes = 2000;

/// The host of "http://<address>[:<port>][/...]", or the same with https. Empty for every other form, for example one
/// with a name, a user or a space: libcurl must not read another host in it.
std::optional<IPv4> HostOfLocation(std::string_view location);

} // namespace SonarixService
