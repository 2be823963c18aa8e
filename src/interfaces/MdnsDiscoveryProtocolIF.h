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

namespace SonarixPb
{
class DeviceInfo;
class Service;
} // namespace SonarixPb

namespace SonarixService
{

/// The face of mDNS discovery and publishing. Every operation runs on the caller's task and returns at once;
/// products, lists and results come on the mDNS task, so callers pass AsyncCallbacks.
/// While the network is down, requests to publish are parked and replayed by NetworkWentUp().
class MdnsDiscoveryProtocolIF
{
public:
    virtual ~MdnsDiscoveryProtocolIF() = default;

    virtual void Start() = 0;
    virtual void Stop() = 0;
    virtual CallbackConnection RegisterProductStateCallback(const Callback<const Sonarix::Product>& callback) = 0;
    /// Called at every real start: subscribers hand in their services again.
    virtual CallbackConnection RegisterForServiceRestartNotification(const Callback<>& callback) = 0;
    /// `callback` gets the resolved products of one service type; an empty list, on the caller's own thread and
    /// before the return, while stopped.
    virtual void GetProductList(const std::string& serviceType,
                                const Callback<const Sonarix::ProductList>& callback) = 0;
    /// False for a failure and for a request that was parked.
    virtual bool AddService(const SonarixPb::Service& service) = 0;
    virtual void UpdateServiceTxtRecords(const SonarixPb::Service& service, const Callback<bool>& result) = 0;
    virtual void RemoveService(const SonarixPb::Service& service) = 0;
    virtual void BroadcastInitialDeviceAnnouncement(const SonarixPb::DeviceInfo& info) = 0;
    virtual void BroadcastInitialAccessoryAnnouncement(const SonarixPb::DeviceInfo& info) = 0;
    /// After Start(); replays what was parked, in a fixed order.
    virtual void NetworkWentUp() = 0;
    virtual void NetworkWentDown() = 0;
};

} // namespace SonarixService
