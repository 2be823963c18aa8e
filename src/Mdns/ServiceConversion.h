#pragma once

#include "Mdns/MdnsTypes.h"

namespace SonarixPb
{
class Service;
}

namespace SonarixService
{

/// The message's `address` field carries a port, in its low 16 bits. A key given twice: the last value counts.
MDNS::Service ToMdnsService(const SonarixPb::Service& message);

} // namespace SonarixService
