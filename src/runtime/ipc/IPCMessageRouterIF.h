#pragma once

#include "runtime/AsyncCallback.h"
#include "runtime/Callback.h"
#include "runtime/CallbackConnection.h"
#include "runtime/ipc/IPCMessageEnvelope.h"

#include <functional>
#include <memory>

namespace Network
{
class ConnectorSocket;
}

/// One end of a connection of the local sockets: reads envelopes and hands each request to the handler of its
/// identifier, sends responses and notifications.
/// Task: handlers and `onDisconnect` run on the task that the router was made for; Start(), Stop() and AttachHandler()
/// are called there. The three that send may be called from any thread, and return at once.
/// Owner: whoever made it. Its end stops it.
/// What is sent before Start(), after Stop() or after the disconnect is dropped silently.
class IPCMessageRouterIF
{
public:
    virtual ~IPCMessageRouterIF() = default;

    /// Reads from here on. `onDisconnect` is called once, when the peer has gone or the connection had to end.
    virtual void Start(std::shared_ptr<Network::ConnectorSocket> socket, const Callback<void>& onDisconnect) = 0;

    /// Ends the connection; no handler is called any more, and not `onDisconnect`.
    virtual void Stop() = 0;

    virtual void SendNotification(unsigned int id, const IPCMessageEnvelope& envelope) = 0;

    /// `tid` is the request's.
    virtual void SendResponse(unsigned int id, const IPCMessageEnvelope& envelope, unsigned int tid) = 0;

    /// The handler stays for the life of the router, whatever becomes of the handle. One for each identifier: a later
    /// one takes its place.
    virtual CallbackConnection AttachHandler(unsigned int id,
                                             const std::function<void(const IPCMessageEnvelope&)>& handler) = 0;

    /// Tells the sender of a request that it could not be taken, its payload being of another type.
    virtual void RejectRequest(const IPCMessageEnvelope& envelope) = 0;

    /// Has `callback` called with each request of that identifier, a record of type T, and its tid. A request that
    /// names another type, or whose payload is none of T, is rejected; one without a name is taken as it is.
    template <class T>
    CallbackConnection AttachForRequest(unsigned int id, const AsyncCallback<T, unsigned int>& callback)
    {
        return AttachHandler(id,
                             [this, callback](const IPCMessageEnvelope& envelope)
                             {
                                 T message;
                                 const bool isOther =
                                     envelope.has_payload_type() && envelope.payload_type() != T::descriptor()->name();
                                 if (isOther || !envelope.GetPayload(message))
                                 {
                                     RejectRequest(envelope);
                                     return;
                                 }
                                 callback(message, envelope.tid());
                             });
    }
};
