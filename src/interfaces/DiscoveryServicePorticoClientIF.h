#pragma once

namespace Sonarix
{
class Product;
}

namespace SonarixService
{

/// The service's face towards the gateway, as the controller sees it. On the controller's task, but for
/// Initialize(), which the main thread calls before anything can be delivered.
class DiscoveryServicePorticoClientIF
{
public:
    virtual ~DiscoveryServicePorticoClientIF() = default;
    virtual void Initialize() = 0;
    virtual void Shutdown() = 0;
    /// Pushes a list of this one product on "/sonarix/products".
    virtual void SendSonarixNotification(const Sonarix::Product& product) = 0;
};

} // namespace SonarixService
