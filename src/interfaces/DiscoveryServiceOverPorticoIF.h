#pragma once

#include "runtime/Callback.h"
#include "runtime/CallbackConnection.h"

namespace Sonarix
{
class Product;
}

namespace SonarixService
{

/// The private endpoint where another process of the product reports child products.
class DiscoveryServiceOverPorticoIF
{
public:
    virtual ~DiscoveryServiceOverPorticoIF() = default;
    virtual CallbackConnection RegisterForProductUpdate(const Callback<Sonarix::Product>& callback) = 0;
    virtual CallbackConnection RegisterForProductRemoved(const Callback<Sonarix::Product>& callback) = 0;
};

} // namespace SonarixService
