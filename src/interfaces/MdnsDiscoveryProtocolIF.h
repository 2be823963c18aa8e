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

/// mDNS discovery and publishing. Every operation runs on the caller's task and returns at once. Products, lists and
/// results arrive on the mDNS task, so callers pass AsyncCallbacks.
/// While the network is down, requests to publish are parked. NetworkWentUp() replays them.
class MdnsDiscoveryProtocolIF
{
public:
    virtual ~MdnsDiscoveryProtocolIF() = default;

    virtual void Start() = 0;
    virtual void Stop() = 0;
    virtual CallbackConnection RegisterProductStateCallback(const Callback<const Sonarix::Product>& callback) = 0;
    /// Calls `callback` at each start that has an effect. The subscriber then adds its services again.
    virtual CallbackConnection RegisterForServiceRestartNotification(const Callback<>& callback) = 0;
    /// Calls `callback` with the resolved products of one service type. While stopped, calls it with an empty list on
    /// the calling thread, before it returns.
    virtual void GetProductList(const std::string& serviceType,
                                const Callback<const Sonarix::ProductList>& callback) = 0;
    /// Returns false for a failure and for a parked request.
    virtual bool AddService(const SonarixPb::Service& service) = 0;
    virtual void UpdateServiceTxtRecords(const SonarixPb::Service& service, const Callback<bool>& result) = 0;
    virtual void RemoveService(const SonarixPb::Service& service) = 0;
    virtual void BroadcastInitialDeviceAnnouncement(const SonarixPb::DeviceInfo& info) = 0;
    virtual void BroadcastInitialAccessoryAnnouncement(const SonarixPb::DeviceInfo& info) = 0;
    /// To be called after Start(). Replays the parked requests in a fixed order.
    virtual void NetworkWentUp() = 0;
    virtual void NetworkWentDown() = 0;
};

} // namespace SonarixService
