#pragma once

#include "runtime/Callback.h"
#include "runtime/CallbackConnection.h"

namespace Sonarix
{
class Product;
}

namespace SonarixService
{

/// The private endpoint by which another process of the product tells of child products.
class DiscoveryServiceOverPorticoIF
{
public:
    virtual ~DiscoveryServiceOverPorticoIF() = default;
    virtual CallbackConnection RegisterForProductUpdate(const Callback<Sonarix::Product>& callback) = 0;
    virtual CallbackConnection RegisterForProductRemoved(const Callback<Sonarix::Product>& callback) = 0;
};

} // namespace SonarixService
