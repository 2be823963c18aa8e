#pragma once

#include "schemas/SonarixPb.pb.h" // an enumeration of a schema cannot be declared ahead

namespace Sonarix
{
class Product;
}

namespace SonarixService
{

/// A product as the clients of the local sockets see it: what is set and not empty of its information. `upc`,
/// `country`, `manufacturerurl` and ZoneControl_Version stay out. Stateless, safe from any thread.
SonarixPb::DeviceInfo ProductToDeviceInfo(const Sonarix::Product& product);

/// INVALID for what is neither OFFLINE nor ONLINE, an unset state among it.
SonarixPb::DeviceState ProductStateToDeviceState(const Sonarix::Product& product);

} // namespace SonarixService
