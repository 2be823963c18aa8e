#pragma once

#include "schemas/SonarixPb.pb.h" // an enumeration of a schema cannot be declared ahead

#include <string>

class IPCMessageRouterIF;

namespace Sonarix
{
class ProductList;
}

namespace SonarixService
{

/// The identifiers of the local services; each service has the first two.
enum MessageId : unsigned int
{
    DEVICE_NOTIFICATION = 1,
    LIST_DEVICES = 2,
    ADD_SERVICE = 3,
    REMOVE_SERVICE = 4,
    BROADCAST_ANNOUNCEMENT = 5,
    UPDATE_TXT_RECORDS = 6,
};

/// What both kinds of client are sent. Any thread.
void SendDevice(IPCMessageRouterIF& router, SonarixPb::DeviceState state, const SonarixPb::DeviceInfo& device);
void SendDeviceList(IPCMessageRouterIF& router, const Sonarix::ProductList& list, unsigned int tid);
/// An error that also names the unit, in place of a list.
void SendListError(IPCMessageRouterIF& router, const std::string& message, unsigned int tid);
/// Code and subcode are 0 always: the text tells.
void SendError(IPCMessageRouterIF& router, MessageId id, const std::string& message, unsigned int tid);

} // namespace SonarixService
