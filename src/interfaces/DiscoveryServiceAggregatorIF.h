#pragma once

#include "runtime/Callback.h"
#include "runtime/CallbackConnection.h"
#include "schemas/SXCommon.pb.h" // an enumeration of a schema cannot be declared ahead

#include <set>
#include <string>

namespace Sonarix
{
class ProductInfo;
class ProductList;
} // namespace Sonarix

namespace SonarixService
{

/// The table of known products and the unit's own information, as the gateway client sees them.
/// All on the controller's task.
class DiscoveryServiceAggregatorIF
{
public:
    virtual ~DiscoveryServiceAggregatorIF() = default;

    virtual void Shutdown() = 0;
    /// `callback` also gets the present information, before the return.
    virtual CallbackConnection RegisterForMyProductInfo(const Callback<Sonarix::ProductInfo>& callback) = 0;
    /// `callback` gets nothing until the next change.
    virtual CallbackConnection RegisterForProductList(const Callback<Sonarix::ProductList>& callback) = 0;
    /// The own mode or address may be new. A change of mode resets nearly all of the table.
    virtual void InitializeProtocols(const SXCommon::ProductMode& mode, const std::string& ipAddress) = 0;
    /// Replaces `list` by a snapshot: tracked products by guid, then children by guid.
    virtual void GetProductList(Sonarix::ProductList& list) = 0;
    /// Calls `response` once, before the return; `error` never.
    virtual void GetMyProductInfo(const Callback<Sonarix::ProductInfo>& response,
                                  const Callback<SXCommon::SonarixError>& error) = 0;
    /// What the product advertises about itself. Throws std::logic_error where it has fields that only we may know.
    virtual void HandleProductInfoAdvertisement(const Sonarix::ProductInfo& info) = 0;
    virtual void SetSupportedWifiBands(const std::set<std::string>& bands) = 0;
};

} // namespace SonarixService
