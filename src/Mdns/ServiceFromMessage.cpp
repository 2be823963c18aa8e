#include "Mdns/ServiceFromMessage.h"

#include "schemas/SonarixPb.pb.h"

#include <cstdint>

namespace SonarixService
{

MDNS::Service ServiceFromMessage(const SonarixPb::Service& message)
{
    MDNS::Service service;
    service.interface = message.id().interface();
    service.protocol = static_cast<MDNS::Protocol>(message.id().protocol());
    service.name = message.id().name();
    service.type = message.id().type();
    service.domain = message.id().domain();
    service.address = Network::IpAddress(static_cast<std::uint16_t>(message.address() & 0xFFFF));
    for (const SonarixPb::ServiceRecords& record : message.txt())
    {
        service.txt[record.key()] = record.value();
    }
    return service;
}

} // namespace SonarixService
