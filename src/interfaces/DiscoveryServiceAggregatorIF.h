#pragma once

#include "runtime/Callback.h"
#include "runtime/CallbackConnection.h"
#include "schemas/SXCommon.pb.h" // enumerations of a schema have no forward declaration

#include <set>
#include <string>

namespace Sonarix
{
class ProductInfo;
class ProductList;
} // namespace Sonarix

namespace SonarixService
{

/// The table of known products and the unit's own information. Used by the gateway client.
/// Task: all operations run on the controller's task.
class DiscoveryServiceAggregatorIF
{
public:
    virtual ~DiscoveryServiceAggregatorIF() = default;

    virtual void Shutdown() = 0;
    /// Calls `callback` with the current information before it returns, then at each change.
    virtual CallbackConnection RegisterForMyProductInfo(const Callback<Sonarix::ProductInfo>& callback) = 0;
    /// Calls `callback` at each notification of the list, not at the registration.
    virtual CallbackConnection RegisterForProductList(const Callback<Sonarix::ProductList>& callback) = 0;
    /// Sets the own mode and address. A change of mode resets nearly all of the table.
    virtual void InitializeProtocols(const SXCommon::ProductMode& mode, const std::string& ipAddress) = 0;
    /// Replaces `list` with a snapshot: tracked products sorted by guid, then children sorted by guid.
    virtual void GetProductList(Sonarix::ProductList& list) = 0;
    /// Calls `response` once, before it returns. Never calls `error`.
    virtual void GetMyProductInfo(const Callback<Sonarix::ProductInfo>& response,
                                  const Callback<SXCommon::SonarixError>& error) = 0;
    /// Takes the information that the product advertises about itself. Throws std::logic_error if `info` has a field
    /// that only this service may set.
    virtual void HandleProductInfoAdvertisement(const Sonarix::ProductInfo& info) = 0;
    virtual void SetSupportedWifiBands(const std::set<std::string>& bands) = 0;
};

} // namespace SonarixService
