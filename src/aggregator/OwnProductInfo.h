#pragma once

#include "runtime/CallbackRegistry.h"
#include "schemas/Sonarix.pb.h"

#include <set>
#include <string>

class NotifyTargetTaskIF;

namespace SonarixService
{

class ProductTable;

/// The information of the product that this service runs on: from files, from reports about itself, from its mode,
/// address and Wi-Fi bands, and from its children.
/// Task: `task` (checked in debug builds where a report or the bands come in). Construction, registration and reading
/// also on the main thread while the task is held. Owner: the aggregator.
/// Never hands out the stored record, only copies in which the fields that only this product knows are filled in.
class OwnProductInfo final
{
public:
    using ProductMode = SXCommon::ProductMode;

    /// Reads the version files and the capabilities. `table` provides the children and outlives this object.
    OwnProductInfo(const NotifyTargetTaskIF* task, const ProductTable& table);

    const std::string& Guid() const;
    ProductMode Mode() const; ///< UNKNOWN_MODE at start

    void SetMode(const ProductMode& mode);
    bool SetAddress(const std::string& ipAddress); ///< true if it differs from the previous one
    void SetSupportedWifiBands(const std::set<std::string>& bands);
    void ClearChildren(); ///< those of the stored record

    /// Makes `info` a copy of the own information in which all fields that only this product knows are filled in.
    void ApplyMandatorySelfSXInfoSources(Sonarix::ProductInfo& info) const;
    void ApplyMandatorySelfSXInfoSources(); ///< to the stored record
    Sonarix::ProductInfo GetCombinedProductInfo() const;

    /// Merges a report about this product and notifies. Ignores a report about another product.
    /// Throws std::logic_error, and changes nothing, if the report has a field that only this product knows.
    void HandleSelfProductUpdate(const Sonarix::ProductInfo& info);
    /// HandleSelfProductUpdate() for a report of a discovery source: the own address is kept.
    void HandleDiscoveredSelf(const Sonarix::ProductInfo& info);

    /// Calls `callback` once before the return, then at each notification.
    CallbackConnection RegisterForMyProductInfo(const Callback<Sonarix::ProductInfo>& callback);
    void NotifyMyProductInfo();
    void DisconnectAll();

    void LogChildMode() const;

private:
    static ProductMode GetCurrentProductMode(const Sonarix::ProductInfo& info);
    static bool IsInChildMode(const Sonarix::ProductInfo& info);

    const NotifyTargetTaskIF* m_task;
    const ProductTable& m_table;
    const std::string m_etcDir;
    const SXCommon::MultiroomVersions m_multiroomVersions;
    const std::string m_guid;
    ProductMode m_currentProductMode = SXCommon::UNKNOWN_MODE;
    std::string m_ipAddress;
    std::set<std::string> m_supportedWifiBands;
    Sonarix::ProductInfo m_myProductInfo;
    CallbackRegistry<Sonarix::ProductInfo> m_myProductInfoRegistry;
};

} // namespace SonarixService
