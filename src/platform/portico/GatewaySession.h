#pragma once

#include "base/Backoff.h"
#include "platform/portico/DeferredNotifications.h"
#include "platform/portico/Registration.h"
#include "platform/portico/RequestQueue.h"
#include "runtime/Timers.h"
#include <PorticoClient.h>

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

class NotifyTargetTaskIF;

namespace WebSocket
{
class Connection;
}

namespace Portico
{

/// The part of a gateway client that runs on the I/O task: its connection, its registrations, its requests.
/// Task: everything on the I/O task, the destructor too. Owner: GatewayClient, which releases it on that task.
///
///     Start ---> connecting ---opened---> open, serve.., subscribe.., waiting requests ---> connected
///                   ^  |                                                                       |
///                   |  +--- closed: every request ends in its error callback <----- closed ----+
///                   +------ after a growing pause
class GatewaySession final : public std::enable_shared_from_this<GatewaySession>
{
public:
    struct Settings
    {
        std::string service;
        std::string host;
        int port = 0;
        std::string subProtocol;
        std::string guid;
        std::optional<ConnectCallback> onConnect;
        std::optional<HeartbeatCallback> onHeartbeat;
        std::optional<RefusalCallback> onRefused;
    };
    using AnswerCallback = RevocableCallback<std::string, std::string>; ///< (body, error body)

    GatewaySession(NotifyTargetTaskIF* io, std::shared_ptr<ShutdownState> shutdown, Settings settings);
    ~GatewaySession();
    GatewaySession(const GatewaySession&) = delete;
    GatewaySession& operator=(const GatewaySession&) = delete;

    /// Runs `operation` on the I/O task unless the session is gone. The entry holds a weak reference only, so that the
    /// last reference is not released on another thread.
    static void Post(NotifyTargetTaskIF* io, const std::weak_ptr<GatewaySession>& session,
                     std::function<void(GatewaySession&)> operation);

    void Start();
    /// Ends the session: closes the connection, so the gateway withdraws the served paths. No callback follows.
    void Close();

    void Add(const std::shared_ptr<Registration>& registration);
    /// Removes a registration or a request; `owner` is its callback.
    void Remove(const RevocableCallbackIF* owner);
    void Request(const std::string& method, const std::string& path, const std::string& body,
                 const std::string& version, const std::shared_ptr<AnswerCallback>& callback);
    void Notify(const std::string& path, const std::string& version, const std::string& body);
    /// Answers request `id` unless the connection `epoch`, on which it came, has been lost.
    void Reply(std::uint64_t epoch, const std::string& id, const JsonRpc::Answer& answer);

private:
    void Connect();
    void HandleOpened();
    void HandleDrained();
    void HandleOpenAnswer(const JsonRpc::Answer& answer);
    void HandleClosed(const std::string& reason);
    /// Connects again after a pause. Every pending request ends in `error`.
    void Reconnect(const std::string& reason, const JsonRpc::Answer& error);
    void HandleMessage(const std::string& text);
    void HandleRequest(const JsonRpc::Frame& frame);
    void HandleNotification(const JsonRpc::Params& params);
    void HandleHeartbeat(const JsonRpc::Params& params);

    void Announce(const std::shared_ptr<Registration>& registration);
    void Serve(const std::shared_ptr<Registration>& registration);
    void HandleServed(const std::shared_ptr<Registration>& registration, const JsonRpc::Answer& answer);
    void RetryServe(const std::shared_ptr<Registration>& registration);
    void Withdraw(const Registration& registration);
    bool IsServed(const std::string& path) const;
    void SendDeferred(const std::string& path);
    void SendAllDeferred();

    void Call(const std::string& method, const std::string& params, const JsonRpc::AnswerCallback& done);
    void Send(std::string frame);
    void ReportConnected(bool isConnected);
    void ReportRefused(const std::string& path, const JsonRpc::Answer& error);
    JsonRpc::Answer Error(int code, const std::string& message, int subcode = 0) const;
    RequestQueue::Send Sender();
    std::string Name() const; ///< for log lines

    NotifyTargetTaskIF* m_io;
    std::shared_ptr<ShutdownState> m_shutdown;
    Settings m_settings;
    std::shared_ptr<WebSocket::Connection> m_connection;
    std::uint64_t m_epoch = 0;        ///< number of the connection; an answer for an older one is dropped
    bool m_isOpen = false;            ///< frames can be sent
    bool m_isConnected = false;       ///< the gateway has answered `open`
    bool m_isAbsenceLogged = false;   ///< a missing gateway is logged once, not at each attempt
    bool m_isRefusalReported = false; ///< a gateway that refuses `open` is reported once
    bool m_isBacklogLogged = false;   ///< a gateway that reads too slowly is logged once
    bool m_isClosed = false;          ///< Close() has been called
    std::int64_t m_connectedSinceMs = 0;
    Backoff m_backoff;
    MessageTimer m_reconnectTimer;
    std::vector<std::shared_ptr<Registration>> m_registrations; ///< in the order of registration
    DeferredNotifications m_deferred;
    RequestQueue m_requests;
};

} // namespace Portico
