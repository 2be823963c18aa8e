#pragma once

#include "ssdp/InterfaceLink.h"

#include <cstddef>
#include <optional>
#include <string_view>

namespace SonarixService
{

/// What browsers and servers take as a URL's length, and more than any description's address has.
constexpr std::size_t kMaxLocationBytes = 2000;

/// The host of "http://<address>[:<port>][/...]", also with https; nothing for anything else (a name, a user, a blank),
/// so that whoever fetches it reads the same host in it.
std::optional<IPv4> HostOfLocation(std::string_view location);

} // namespace SonarixService
