#pragma once

#include "runtime/Callback.h"
#include "runtime/CallbackConnection.h"

#include <memory>
#include <string>

namespace Sonarix
{
class Product;
class ProductList;
} // namespace Sonarix

namespace SonarixService
{

/// The face of SSDP discovery. Started and stopped on the controller's task; products come on its own task, so
/// subscribers pass AsyncCallbacks.
class SsdpDiscoveryProtocolIF : public std::enable_shared_from_this<SsdpDiscoveryProtocolIF>
{
public:
    virtual ~SsdpDiscoveryProtocolIF() = default;

    /// `interfaceName` is the primary interface, such as "eth0".
    virtual void Start(const std::string& interfaceName) = 0;
    virtual void Stop() = 0;
    virtual CallbackConnection RegisterProductStateCallback(const Callback<const Sonarix::Product>& callback) = 0;
    /// Fills `list` before it returns.
    virtual void GetProductList(Sonarix::ProductList& list) = 0;
};

} // namespace SonarixService
