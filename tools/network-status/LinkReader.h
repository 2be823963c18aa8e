#pragma once

#include "tools/network-status/Link.h"

#include <optional>
#include <vector>

/// Reads all interfaces with an Ethernet address, in the kernel's order. Returns nothing and sets errno on failure.
std::optional<std::vector<Link>> ReadLinks();
