#pragma once

#include "Mdns/avahi/MdnsTypes.h"

namespace SonarixPb
{
class Service;
}

namespace SonarixService
{

/// The low 16 bits of the message's `address` field hold the port. If a TXT key occurs twice, the last value is kept.
MDNS::Service ServiceFromMessage(const SonarixPb::Service& message);

} // namespace SonarixService
