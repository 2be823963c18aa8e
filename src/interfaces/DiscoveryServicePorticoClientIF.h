#pragma once

namespace Sonarix
{
class Product;
}

namespace SonarixService
{

/// The service's client of the local API gateway. Used by the controller.
/// Task: all operations run on the controller's task, except Initialize(), which the main thread calls before the
/// gateway can deliver anything.
class DiscoveryServicePorticoClientIF
{
public:
    virtual ~DiscoveryServicePorticoClientIF() = default;
    virtual void Initialize() = 0;
    virtual void Shutdown() = 0;
    /// Notifies a list that contains only `product` on "/sonarix/products".
    virtual void SendSonarixNotification(const Sonarix::Product& product) = 0;
};

} // namespace SonarixService
