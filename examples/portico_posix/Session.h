#pragma once

#include "PorticoClient.h"
#include "WebSocketConnection.h"

#include <atomic>
#include <chrono>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <random>
#include <string>
#include <vector>

/// One client: what is registered, what is on its way, the connection and its return.
/// Operations, from any thread, change the state under a lock and wake the loop. Prepare and Step are the loop's.
/// Callbacks run on the loop under the gate, which what ends them takes, and without that lock.
class Session final : public PorticoClientIF, public std::enable_shared_from_this<Session>
{
public:
    using Clock = std::chrono::steady_clock;

    struct Settings
    {
        std::string service;
        std::string host;
        int port = 0;
        std::string subProtocol;
        std::string guid;
        std::optional<Portico::ConnectCallback> onConnect;
        std::optional<Portico::HeartbeatCallback> onHeartbeat;
        std::optional<Portico::RefusalCallback> onRefused;
    };

    /// What its user can take away: a handler, a subscriber, the end of a request.
    struct Slot
    {
        std::atomic<bool> isConnected{true};
        BodyHandler serve;
        Callback<std::string> listen;
        Callback<std::string, std::string> done;
    };

    explicit Session(Settings settings);

    CallbackConnection RegisterGet(const std::string& path, const GetHandler& handler,
                                   const Portico::EndpointScope& scope, const double& version, const std::string& label,
                                   const int& option) override;
    CallbackConnection RegisterBody(Portico::Verb verb, const std::string& path, const BodyHandler& handler,
                                    const Portico::EndpointScope& scope, const double& version,
                                    const std::string& label, const int& option) override;
    CallbackConnection RegisterNotificationText(const std::string& path, const Callback<std::string>& callback,
                                                const Portico::EndpointScope& scope, const double& version,
                                                const int& option) override;
    CallbackConnection SendText(Portico::Verb verb, const std::string& path, const std::string& body,
                                const Callback<std::string, std::string>& done, const double& version) override;
    void SendNotification(const std::string& path, const google::protobuf::Message& message,
                          const double& version) override;
    void Shutdown() override;

    bool HasEnded() const;
    void Disconnect(const std::shared_ptr<Slot>& slot);
    void Answer(std::uint64_t connection, const std::string& frame); ///< dropped where that connection has gone

    /// What to wait for; lowers `due` to when it wants its turn anyhow.
    pollfd Prepare(Clock::time_point& due);
    /// False: it has ended.
    bool Step(short events, Clock::time_point now);

private:
    using OnEnd = std::function<void(const std::string& body, const std::string& errorBody)>;

    struct Registration
    {
        std::shared_ptr<Slot> slot;
        std::string verb; ///< empty: a subscription
        std::string path;
        std::string params;    ///< of `serve` or `subscribe`
        std::string endParams; ///< of `withdraw` or `unsubscribe`
        bool isAgreed = false; ///< by the gateway of the connection that stands
        Clock::time_point askAt = Clock::time_point::max();
        std::chrono::milliseconds pause{0};
    };

    struct Pending
    {
        Clock::time_point until;
        std::string waiting; ///< the frame, while there is no connection
        OnEnd onEnd;
    };

    CallbackConnection Register(const Registration& registration);

    // All under the lock.
    void Move(short events, Clock::time_point now);
    void HandleFrame(const std::string& text);
    void HandleCall(const std::string& id, const std::string& method, const std::string& path, const std::string& body);
    void HandleOpened(const std::string& errorBody);
    void HandleAnnounced(const std::shared_ptr<Slot>& slot, const std::string& errorBody);
    void Announce(Registration& registration);
    void Call(const std::string& method, const std::string& params, OnEnd onEnd);
    void EndPending(std::uint64_t id, const std::string& body, const std::string& errorBody);
    void SendHeld();
    void Drop(const std::string& reason, const std::string& errorBody);
    void TellConnected(bool isConnected);
    void TellRefused(const std::string& path, const std::string& errorBody);
    void Send(const std::string& frame);
    std::string Error(int code, const std::string& message) const;
    std::chrono::milliseconds Grow(std::chrono::milliseconds& pause);

    const Settings m_settings;
    const std::string m_name; ///< for people

    std::recursive_mutex m_gate; ///< held while a callback runs
    std::atomic<bool> m_hasEnded{false};

    std::mutex m_mutex;
    std::deque<std::function<void()>> m_callbacks; ///< to be run by the loop
    std::vector<Registration> m_registrations;     ///< in the order in which they came
    std::map<std::uint64_t, Pending> m_pending;    ///< requests by id, so in their order
    std::map<std::string, std::string> m_held;     ///< path -> the notification's frame
    std::uint64_t m_lastId = 0;
    std::unique_ptr<WebSocketConnection> m_connection;
    std::uint64_t m_connectionNumber = 0;
    bool m_isOpenSent = false;
    bool m_isOpen = false;
    Clock::time_point m_changeAt; ///< without a connection the next attempt, with one that is not open its end
    Clock::time_point m_openSince;
    std::chrono::milliseconds m_pause{0};
    std::optional<bool> m_told; ///< to the connect callback, last
    bool m_isRefusalTold = false;
    bool m_isBehind = false; ///< more waits for the gateway than it should
    std::minstd_rand m_random{std::random_device()()};
};
