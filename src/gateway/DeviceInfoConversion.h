#pragma once

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

/// What an advertised device says about itself, as a record of the own product. Stateless, safe from any thread.
/// Every field that is taken becomes present, with its default where `device` lacks it; `ipaddress` only where
/// `device` has it. ZoneControl_Version and everything that only the product itself may know stay absent.
Sonarix::ProductInfo ConvertToProductInfo(const SonarixPb::DeviceInfo& device);

} // namespace SonarixService
