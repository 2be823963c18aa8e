#pragma once

#include "base/Backoff.h"
#include "platform/portico/HeldNotifications.h"
#include "platform/portico/JsonRpc.h"
#include "platform/portico/PendingCalls.h"
#include "platform/portico/Registration.h"
#include "runtime/Timers.h"
#include <PorticoClient.h>

#include <cstdint>
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

/// The working half of one gateway client: its connection, what is registered, what waits for an answer.
/// Task: everything is on the I/O task, the destructor too. Owner: the client's facade, which lets go of it there.
///
///     Start ---> connecting ---opened---> open, serve.., subscribe.., waiting requests ---> connected
///                   ^  |                                                                       |
///                   |  +--- closed: every request ends in its error callback <----- closed ----+
///                   +------ after a growing pause
class Session final : public std::enable_shared_from_this<Session>
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
    using RequestSlot = Slot<std::string, std::string>; ///< (body, error body)

    Session(NotifyTargetTaskIF* io, std::shared_ptr<Gate> gate, Settings settings);
    ~Session();
    Session(const Session&) = delete;
    Session& operator=(const Session&) = delete;

    void Start();
    /// For good: closes the connection, which withdraws whatever was served, and calls nobody any more.
    void Close();

    void Add(const std::shared_ptr<Registration>& registration);
    /// Takes a registration or a request away; `owner` is its slot.
    void Remove(const SlotIF* owner);
    void Request(const std::string& method, const std::string& path, const std::string& body, double version,
                 const std::shared_ptr<RequestSlot>& slot);
    void Notify(const std::string& path, const std::string& body, double version);
    /// The answer to request `id`, for the connection that it came by.
    void Reply(std::uint64_t epoch, const std::string& id, std::string frame);

    std::string ErrorText(int code, int subcode, const std::string& message) const;

private:
    void Connect();
    void HandleOpened();
    void HandleDrained();
    void HandleOpenAnswer(const std::string& errorBody);
    void HandleClosed(const std::string& reason);
    void Reconnect(const std::string& reason, const std::string& errorBody);
    void HandleMessage(const std::string& text);
    void HandleRequest(const JsonRpc::Frame& frame);
    void HandleNotification(const JsonRpc::Frame& frame);
    void HandleHeartbeat(const JsonRpc::Frame& frame);

    void Announce(const std::shared_ptr<Registration>& registration);
    void Serve(const std::shared_ptr<Registration>& registration);
    void HandleServed(const std::shared_ptr<Registration>& registration, const std::string& errorBody);
    void RetryServe(const std::shared_ptr<Registration>& registration);
    void Withdraw(const Registration& registration);
    bool IsServed(const std::string& path) const;
    void SendHeld(const std::string& path);
    void SendAllHeld();

    void Call(const std::string& method, const std::string& params, PendingCalls::Done done);
    void Send(std::string frame);
    void TellConnected(bool isConnected);
    void TellRefused(const std::string& path, const std::string& errorBody);
    std::string Name() const; ///< for log lines

    NotifyTargetTaskIF* m_io;
    std::shared_ptr<Gate> m_gate;
    Settings m_settings;
    std::shared_ptr<WebSocket::Connection> m_connection;
    std::uint64_t m_epoch = 0;    ///< counts connections, so that what is late finds out
    bool m_isOpen = false;        ///< frames can be sent
    bool m_isConnected = false;   ///< the gateway has answered `open`
    bool m_isToldMissing = false; ///< one line for a gateway that is not there, not one for each attempt
    bool m_isToldRefused = false; ///< likewise for one that does not open
    bool m_isToldBehind = false;  ///< likewise for one that does not keep up
    bool m_isClosed = false;      ///< for good
    std::int64_t m_connectedSinceMs = 0;
    Backoff m_backoff;
    MessageTimer m_reconnectTimer;
    std::vector<std::shared_ptr<Registration>> m_registrations; ///< in the order of their making
    HeldNotifications m_held;
    PendingCalls m_calls;
};

} // namespace Portico
