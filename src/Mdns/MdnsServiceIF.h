#pragma once

#include "Mdns/avahi/MdnsTypes.h"
#include "runtime/Callback.h"
#include "runtime/CallbackConnection.h"

#include <string>

namespace Sonarix
{
class Product;
class ProductList;
} // namespace Sonarix

namespace SonarixPb
{
class DeviceInfo;
} // namespace SonarixPb

namespace SonarixService
{

/// The mDNS logic: browsing, resolving and publishing.
/// Task: any thread may call the operations. Each copies its arguments, posts the work to the task that was given at
/// creation, and returns. Callbacks run on that task.
/// Owner: MdnsDiscoveryProtocol. Queued work holds the object, so the owner may release it at any time.
class MdnsServiceIF
{
public:
    /// The enumerators are the keys of kServiceTypes.
    enum DiscoverableDeviceType
    {
        RENDERER = 0,
        SERVER = 1, ///< has no service type: a subscription gets no product
        CLOCK = 2,
        ACCESSORY = 3,
    };

    enum FilterKind
    {
        FILTER_NAME = 0, ///< `value` occurs in the instance name
        FILTER_MAC = 1,  ///< the TXT record "MAC" equals `value`
        FILTER_ALL = 2,
    };

    /// Selects services by `kind` and `value`. An unknown `kind` selects no service.
    struct Filter_t
    {
        int kind = FILTER_ALL;
        std::string value;
    };

    virtual ~MdnsServiceIF() = default;

    virtual void StartService() = 0;
    virtual void StopService() = 0;
    /// `cb` gets the resolved services of one type, all with state ONLINE.
    virtual void GetProductList(const std::string& serviceType, Callback<const Sonarix::ProductList> cb) = 0;
    virtual void BroadcastInitialDeviceAnnouncement(const SonarixPb::DeviceInfo& info) = 0;
    virtual void BroadcastInitialAccessoryAnnouncement(const SonarixPb::DeviceInfo& info) = 0;
    /// One service per type: an earlier service of the same type is withdrawn first.
    virtual void AddService(const MDNS::Service& s) = 0;
    virtual void RemoveService(const MDNS::Service& s) = 0;
    virtual void UpdateServiceTxtRecords(const MDNS::Service& s, Callback<bool> cb) = 0;
    /// Calls `registered` before it returns. `cb` first gets every known service, then every change. The subscription
    /// ends when its connection is disconnected, not when it is dropped.
    virtual void RegisterForProductUpdates(const Filter_t& filter, DiscoverableDeviceType type,
                                           Callback<Sonarix::Product> cb,
                                           Callback<CallbackConnection, bool> registered) = 0;
};

} // namespace SonarixService
