#pragma once

#include "schemas/SonarixPb.pb.h" // protobuf enums cannot be forward-declared

namespace Sonarix
{
class Product;
}

namespace SonarixService
{

/// The product's information in the form that local clients get: all fields that are set and not empty, except `upc`,
/// `country`, `manufacturerurl` and ZoneControl_Version. Any thread.
SonarixPb::DeviceInfo ProductToDeviceInfo(const Sonarix::Product& product);

/// Returns INVALID for every state except OFFLINE and ONLINE, and for an unset state. Any thread.
SonarixPb::DeviceState ProductStateToDeviceState(const Sonarix::Product& product);

} // namespace SonarixService
