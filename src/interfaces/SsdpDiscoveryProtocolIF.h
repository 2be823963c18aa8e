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

/// SSDP discovery. Task: Start() and Stop() run on the controller's task. Products arrive on its own task, so
/// subscribers pass AsyncCallbacks.
class SsdpDiscoveryProtocolIF : public std::enable_shared_from_this<SsdpDiscoveryProtocolIF>
{
public:
    virtual ~SsdpDiscoveryProtocolIF() = default;

    /// `interfaceName` is the primary interface, for example "eth0".
    virtual void Start(const std::string& interfaceName) = 0;
    virtual void Stop() = 0;
    virtual CallbackConnection RegisterProductStateCallback(const Callback<const Sonarix::Product>& callback) = 0;
    /// Fills `list` before it returns.
    virtual void GetProductList(Sonarix::ProductList& list) = 0;
};

} // namespace SonarixService
