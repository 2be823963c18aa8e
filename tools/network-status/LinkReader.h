#pragma once

#include "tools/network-status/Link.h"

#include <optional>
#include <vector>

/// All interfaces with an Ethernet address, in the kernel's order, read afresh. Nothing where the kernel would not
/// tell; errno says why.
std::optional<std::vector<Link>> ReadLinks();
