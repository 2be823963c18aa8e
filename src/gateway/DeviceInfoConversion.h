#pragma once

namespace HUBAPI
{
class AdvertisementInfo;
}

namespace Sonarix
{
class ProductInfo;
}

namespace SonarixPb
{
class DeviceInfo;
}

namespace SonarixService
{

// Conversions of an advertised device. Stateless, safe from any thread. Each copied field becomes present, with its
// default value if the source lacks it.

/// Reads the MAC address of this product, see MacAddressInfo.h. `ipaddress` stays absent.
SonarixPb::DeviceInfo DeviceInfoFromAdvertisement(const HUBAPI::AdvertisementInfo& info);

/// `ipaddress` is copied only if `device` has it. ZoneControl_Version, capabilities, configurations and children stay
/// absent.
Sonarix::ProductInfo ProductInfoFromDeviceInfo(const SonarixPb::DeviceInfo& device);

} // namespace SonarixService
