#pragma once

#include "Mdns/MdnsTypes.h"
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

/// The mDNS logic: what is browsed, resolved and published. Every operation copies its arguments, posts the work to
/// the task that was given at creation, and returns at once; callbacks come on that task.
/// Owner: the mDNS protocol object. Queued work holds the object, so that the owner may let go at any time.
class MdnsServiceIF
{
public:
    /// The kinds of service that can be asked for; the values are the keys of the table of service types.
    enum DiscoverableDeviceType
    {
        RENDERER = 0,
        SERVER = 1, ///< has no service type: never fires
        CLOCK = 2,
        ACCESSORY = 3,
    };

    enum FilterKind
    {
        FILTER_NAME = 0, ///< `value` occurs in the instance name
        FILTER_MAC = 1,  ///< the TXT record "MAC" equals `value`
        FILTER_ALL = 2,
    };

    /// An unknown kind lets nothing pass.
    struct Filter_t
    {
        int kind = FILTER_ALL;
        std::string value;
    };

    virtual ~MdnsServiceIF() = default;

    virtual void StartService() = 0;
    virtual void StopService() = 0;
    /// The resolved services of one type, all as ONLINE.
    virtual void GetProductList(const std::string& serviceType, Callback<const Sonarix::ProductList> cb) = 0;
    virtual void BroadcastInitialDeviceAnnouncement(const SonarixPb::DeviceInfo& info) = 0;
    virtual void BroadcastInitialAccessoryAnnouncement(const SonarixPb::DeviceInfo& info) = 0;
    /// At most one service per type: another of the same type is withdrawn first.
    virtual void AddService(const MDNS::Service& s) = 0;
    virtual void RemoveService(const MDNS::Service& s) = 0;
    virtual void UpdateServiceTxtRecords(const MDNS::Service& s, Callback<bool> cb) = 0;
    /// `registered` is called before the return. `cb` first gets all that is known already, then every change.
    virtual void RegisterForProductUpdates(const Filter_t& filter, DiscoverableDeviceType type,
                                           Callback<Sonarix::Product> cb,
                                           Callback<CallbackConnection, bool> registered) = 0;
};

} // namespace SonarixService
