#include "ipc/IPCMessages.h"

#include "ipc/ProductConversion.h"
#include "runtime/ipc/IPCMessageEnvelope.h"
#include "runtime/ipc/IPCMessageRouterIF.h"
#include "schemas/Sonarix.pb.h"
#include <MfgData.h>

namespace SonarixService
{

namespace
{

void Respond(IPCMessageRouterIF& router, MessageId id, const google::protobuf::Message& message, unsigned int tid)
{
    IPCMessageEnvelope envelope;
    envelope.SetPayload(message);
    router.SendResponse(id, envelope, tid);
}

SonarixPb::DeviceDiscoveryError MakeError(const std::string& message)
{
    SonarixPb::DeviceDiscoveryError error;
    error.set_code(0);
    error.set_subcode(0);
    error.set_message(message);
    return error;
}

} // namespace

void SendDevice(IPCMessageRouterIF& router, SonarixPb::DeviceState state, const SonarixPb::DeviceInfo& device)
{
    SonarixPb::DeviceDiscovery discovery;
    discovery.set_state(state);
    *discovery.mutable_device() = device;
    IPCMessageEnvelope envelope;
    envelope.SetPayload(discovery);
    router.SendNotification(DEVICE_NOTIFICATION, envelope);
}

void SendDeviceList(IPCMessageRouterIF& router, const Sonarix::ProductList& list, unsigned int tid)
{
    SonarixPb::DiscoveredDeviceList devices;
    for (const Sonarix::Product& product : list.products())
    {
        *devices.add_device() = ProductToDeviceInfo(product);
    }
    Respond(router, LIST_DEVICES, devices, tid);
}

void SendListError(IPCMessageRouterIF& router, const std::string& message, unsigned int tid)
{
    SonarixPb::DeviceDiscoveryError error = MakeError(message);
    error.set_guid(MfgData::Get("guid").value_or("guid.is.not.set.perhaps.x86"));
    Respond(router, LIST_DEVICES, error, tid);
}

void SendError(IPCMessageRouterIF& router, MessageId id, const std::string& message, unsigned int tid)
{
    Respond(router, id, MakeError(message), tid);
}

} // namespace SonarixService
