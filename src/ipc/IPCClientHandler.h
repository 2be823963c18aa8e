#pragma once

#include "ipc/DiscoveryServiceIPCClientHandlerIF.h"
#include "runtime/AsyncCallback.h"
#include "runtime/CallbackRegistry.h"
#include "runtime/DPrint.h"
#include "runtime/TaskCheck.h"
#include "runtime/ThreadMutex.h"
#include "runtime/ipc/IPCMessageRouterIF.h"

#include <memory>
#include <string>

namespace Sonarix
{
class ProductList;
}

namespace SonarixService
{

/// The common part of the client handlers of both local services: router, disconnect, shutdown, sent messages.
/// Task: the server's. SendSonarixNotification(), Shutdown() and SendDevice() may be called from any thread.
/// Owner: the server, and the callbacks that the handler has registered: they hold it until the disconnect.
class IPCClientHandler : public DiscoveryServiceIPCClientHandlerIF,
                         public std::enable_shared_from_this<IPCClientHandler>
{
public:
    IPCClientHandler(const IPCClientHandler&) = delete;
    IPCClientHandler& operator=(const IPCClientHandler&) = delete;
    ~IPCClientHandler() override;

    void Initialize() override;
    void Shutdown() override;
    CallbackConnection RegisterForDisconnect(const Callback<void>& callback) override;
    void SendSonarixNotification(SonarixPb::DeviceState state,
                                 const std::shared_ptr<SonarixPb::DeviceInfo>& device) override;

protected:
    /// Message identifiers. Both services use the first two.
    enum MessageId : unsigned int
    {
        DEVICE_NOTIFICATION = 1,
        LIST_DEVICES = 2,
        ADD_SERVICE = 3,
        REMOVE_SERVICE = 4,
        BROADCAST_ANNOUNCEMENT = 5,
        UPDATE_TXT_RECORDS = 6,
    };

    /// `name` is the log channel.
    IPCClientHandler(const std::string& name, NotifyTargetTaskIF* task,
                     std::shared_ptr<Network::ConnectorSocket> socket);

    virtual void LogEntry(const char* operation) const = 0;
    /// Registers for the reports of the discovery protocol, sets m_productStateConnection, and attaches the requests.
    virtual void Subscribe(IPCMessageRouterIF& router) = 0;
    /// Called once, at the disconnect, after m_productStateConnection has been disconnected.
    virtual void Unsubscribe() {}

    void HandleDisconnect();
    bool IsConnected();

    /// Passes each request `id` to `handle` on the task.
    template <class Handler, class T>
    void Attach(IPCMessageRouterIF& router, MessageId id, void (Handler::*handle)(const T&, unsigned int))
    {
        router.AttachForRequest(id, AsyncCallback<T, unsigned int>(
                                        [self = Self<Handler>(), handle](const T& request, const unsigned int& tid)
                                        { (*self.*handle)(request, tid); },
                                        m_task));
    }
    template <class Handler>
    std::shared_ptr<Handler> Self()
    {
        return std::static_pointer_cast<Handler>(shared_from_this());
    }

    // Messages to the client. Dropped before Initialize() and after the disconnect.
    void SendDevice(SonarixPb::DeviceState state, const SonarixPb::DeviceInfo& device);
    void SendDeviceList(const Sonarix::ProductList& list, unsigned int tid);
    /// The list request's error also carries the guid of this product.
    void SendListError(const std::string& message, unsigned int tid);
    /// `code` and `subcode` are always 0; only the text differs.
    void SendError(MessageId id, const std::string& message, unsigned int tid);
    void Respond(MessageId id, const google::protobuf::Message& message, unsigned int tid);

    const DPrint m_log;
    NotifyTargetTaskIF* const m_task;
    CThreadMutex m_mutex; ///< guards m_router, and members of the derived class that other tasks read
    CallbackConnection m_productStateConnection;

private:
    std::shared_ptr<IPCMessageRouterIF> Router();

    std::shared_ptr<Network::ConnectorSocket> m_socket; ///< null after Initialize()
    CallbackRegistry<> m_disconnectRegistry;
    std::shared_ptr<IPCMessageRouterIF> m_router; ///< null before Initialize() and after the disconnect
};

} // namespace SonarixService
