#pragma once

#include "runtime/AsyncCallback.h"
#include "runtime/Callback.h"
#include "runtime/CallbackConnection.h"
#include "runtime/ipc/IPCMessageEnvelope.h"

#include <functional>
#include <memory>
#include <string>

namespace Network
{
class ConnectorSocket;
}

/// The service's end of one local connection: reads envelopes, passes each request to the handler of its identifier,
/// and sends responses and notifications.
/// Task: handlers and `onDisconnect` run on the router's task. Start() and AttachHandler() are called there. Stop() and
/// the three operations that send may be called from any thread and return at once.
/// Owner: its creator. The destructor calls Stop() and may run on any thread.
/// Messages sent before Start(), after Stop() or after the disconnect are dropped without a log line.
class IPCMessageRouterIF
{
public:
    virtual ~IPCMessageRouterIF() = default;

    /// Starts reading. `onDisconnect` is called once, when the peer disconnects or a fault ends the connection.
    virtual void Start(std::shared_ptr<Network::ConnectorSocket> socket, const Callback<void>& onDisconnect) = 0;

    /// Ends the connection. On the router's task, neither handlers nor `onDisconnect` are called after it.
    virtual void Stop() = 0;

    virtual void SendNotification(unsigned int id, const IPCMessageEnvelope& envelope) = 0;

    /// `tid` is the transaction id of the request.
    virtual void SendResponse(unsigned int id, const IPCMessageEnvelope& envelope, unsigned int tid) = 0;

    /// Replaces an earlier handler of the identifier. Dropping the returned handle does not detach the handler: it
    /// stays until the router is destroyed.
    virtual CallbackConnection AttachHandler(unsigned int id,
                                             const std::function<void(const IPCMessageEnvelope&)>& handler) = 0;

    /// Answers a request that could not be read: its payload has another type.
    virtual void RejectRequest(const IPCMessageEnvelope& envelope) = 0;

    /// Calls `callback` with the payload, a T, and the tid of each request of that identifier. Rejects a request that
    /// names another payload type or whose payload does not parse as T. A request without a type name is accepted.
    template <class T>
    CallbackConnection AttachForRequest(unsigned int id, const AsyncCallback<T, unsigned int>& callback)
    {
        return AttachHandler(id,
                             [this, callback](const IPCMessageEnvelope& envelope)
                             {
                                 T message;
                                 const bool isOther = envelope->has_payload_type() &&
                                                      envelope->payload_type() != T::descriptor()->name();
                                 if (isOther || !envelope.GetPayload(message))
                                 {
                                     RejectRequest(envelope);
                                     return;
                                 }
                                 callback(message, envelope->tid());
                             });
    }
};

class IPCMessageRouterFactory
{
public:
    /// `name` is the router's log channel. Start() uses `socket` if it gets no socket itself.
    static std::shared_ptr<IPCMessageRouterIF> CreateRouter(const std::string& name, NotifyTargetTaskIF* task,
                                                            std::shared_ptr<Network::ConnectorSocket> socket);
};
