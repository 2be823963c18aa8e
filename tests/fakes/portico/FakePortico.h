#pragma once

#include "runtime/CallbackRegistry.h"
#include "runtime/ThreadMutex.h"
#include <PorticoClient.h>
#include <PorticoError.pb.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <list>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

/// The answer of a served endpoint to FakeConnection::Call. Filled in when the handler answers, perhaps later.
struct FakeAnswer
{
    std::atomic<bool> isDone{false}; ///< set last; the members below may be read then
    bool isError = false;
    std::string body; ///< the record's JSON, on one line
};

class FakeConnection;

/// Gets each operation of the tested code, on its thread, during the operation.
class FakePorticoListener
{
public:
    virtual ~FakePorticoListener() = default;
    virtual void Opened(const std::shared_ptr<FakeConnection>& connection) = 0;
    virtual void Closed(const std::string& serviceName) = 0;
    virtual void Asked(const std::string& serviceName, const std::string& path) = 0;
    virtual void Notified(const std::string& path, const google::protobuf::Message& message) = 0;
};

/// A gateway connection of the tested code. The test answers requests, pushes notifications, sends heartbeats and
/// calls served endpoints through it. It outlives the pointer of the tested code; after that is destroyed or shut
/// down, IsOpen() is false, and operations do nothing and return false.
/// Thread: safe from any thread. Callbacks of the tested code run on the thread that calls the operation here.
class FakeConnection final : public PorticoClientIF
{
public:
    struct Endpoint
    {
        GetHandler get;
        BodyHandler body;
        Portico::EndpointScope scope = Portico::EndpointScope::PUBLIC;
    };

    /// Arguments of Create().
    const std::string serviceName;
    const std::string subProtocol;
    const std::string guid;
    const std::optional<Portico::HeartbeatCallback> heartbeat; ///< copy it to test a heartbeat in flight

    FakeConnection(std::string name, std::string protocol, std::string product,
                   std::optional<Portico::HeartbeatCallback> heartbeatCallback, FakePorticoListener* listener)
        : serviceName(std::move(name))
        , subProtocol(std::move(protocol))
        , guid(std::move(product))
        , heartbeat(std::move(heartbeatCallback))
        , m_listener(listener)
    {
    }

    bool IsOpen() const
    {
        const ScopedMutex lock(m_mutex);
        return m_isOpen;
    }

    // Requests of the tested code.
    std::vector<std::string> Requests(const std::string& path) const ///< all bodies so far, in order
    {
        return Texts(m_requests, path);
    }
    /// Answers the oldest waiting request on `path`. False if there is none.
    bool AnswerText(const std::string& path, const std::string& json)
    {
        return Finish(path, json, {});
    }
    bool Fail(const std::string& path, int code, int subcode, const std::string& message)
    {
        Portico::Error error;
        error.set_code(code);
        error.set_subcode(subcode);
        error.set_message(message);
        return Finish(path, {}, Text(error));
    }

    // Messages of the gateway.
    /// Passes a notification to all subscriptions of `path`. Returns false if there is none.
    bool PushText(const std::string& path, const std::string& json)
    {
        std::list<Registered<Callback<std::string>>> subscriptions;
        {
            const ScopedMutex lock(m_mutex);
            subscriptions = m_subscriptions;
        }
        bool isPushed = false;
        for (const auto& subscription : subscriptions)
        {
            if (subscription.IsFor(path))
            {
                subscription.value(json);
                isPushed = true;
            }
        }
        return isPushed;
    }
    /// Sends a heartbeat for the guid of the connection.
    bool SendHeartbeat(PORTICO_CLIENT_ERRORS status)
    {
        const bool isHeard = heartbeat && IsOpen();
        if (isHeard)
        {
            (*heartbeat)(guid, status);
        }
        return isHeard;
    }

    // Endpoints of the tested code.
    std::optional<Endpoint> FindEndpoint(Portico::Verb verb, const std::string& path) const
    {
        const ScopedMutex lock(m_mutex);
        const auto found = std::find_if(m_served.begin(), m_served.end(),
                                        [&](const auto& each) { return each.IsFor(path) && each.value.first == verb; });
        return found != m_served.end() ? std::optional(found->value.second) : std::nullopt;
    }
    /// Calls a served endpoint. Returns null if `path` is not served.
    std::shared_ptr<const FakeAnswer> Call(Portico::Verb verb, const std::string& path, const std::string& json = {})
    {
        const std::optional<Endpoint> endpoint = FindEndpoint(verb, path);
        if (!endpoint)
        {
            return nullptr;
        }
        auto answer = std::make_shared<FakeAnswer>();
        const auto fill = [answer](bool isError)
        {
            return Response(
                [answer, isError](const google::protobuf::Message& record)
                {
                    answer->isError = isError;
                    answer->body = Text(record);
                    answer->isDone = true;
                });
        };
        endpoint->get(fill(false), fill(true)); // one of the two is empty
        endpoint->body(json, fill(false), fill(true));
        return answer;
    }

    // Notifications of the tested code.
    std::vector<std::string> Notifications(const std::string& path) const ///< as one-line JSON, in order
    {
        return Texts(m_notifications, path);
    }
    /// All operations in order: "SUBSCRIBE /path", "GET /path", "SERVE GET /path", "NOTIFY /path", "SHUTDOWN".
    std::vector<std::string> Log() const
    {
        const ScopedMutex lock(m_mutex);
        return m_log;
    }

private:
    friend class FakePortico;
    using Done = Callback<std::string, std::string>;
    using TextsByPath = std::map<std::string, std::vector<std::string>>;

    /// A registration or a request, until its connection is disconnected.
    template <class T>
    struct Registered
    {
        std::string path;
        T value;
        CallbackConnection connection;

        bool IsFor(const std::string& wanted) const
        {
            return connection.IsConnected() && path == wanted;
        }
    };

    // The following functions are called by the tested code.
    CallbackConnection RegisterGet(const std::string& path, const GetHandler& handler,
                                   const Portico::EndpointScope& scope, const double& /*version*/,
                                   const std::string& /*label*/, const int& /*option*/) override
    {
        return Register(m_served, "SERVE GET", path, {Portico::Verb::GET, {handler, {}, scope}});
    }
    CallbackConnection RegisterBody(Portico::Verb verb, const std::string& path, const BodyHandler& handler,
                                    const Portico::EndpointScope& scope, const double& /*version*/,
                                    const std::string& /*label*/, const int& /*option*/) override
    {
        return Register(m_served, "SERVE " + Name(verb), path, {verb, {{}, handler, scope}});
    }
    CallbackConnection RegisterNotificationText(const std::string& path, const Callback<std::string>& callback,
                                                const Portico::EndpointScope& /*scope*/, const double& /*version*/,
                                                const int& /*option*/) override
    {
        return Register(m_subscriptions, "SUBSCRIBE", path, callback);
    }
    CallbackConnection SendText(Portico::Verb verb, const std::string& path, const std::string& body, const Done& done,
                                const double& /*version*/) override
    {
        const ScopedMutex lock(m_mutex);
        if (m_listener != nullptr)
        {
            m_listener->Asked(serviceName, path);
        }
        else
        {
            m_requests[path].push_back(body);
        }
        return Register(m_waiting, Name(verb), path, done);
    }
    void SendNotification(const std::string& path, const google::protobuf::Message& message,
                          const double& /*version*/) override
    {
        if (m_listener != nullptr)
        {
            m_listener->Notified(path, message);
            return;
        }
        const std::string text = Text(message);
        const ScopedMutex lock(m_mutex);
        m_log.push_back("NOTIFY " + path);
        m_notifications[path].push_back(text);
    }
    void Shutdown() override
    {
        const ScopedMutex lock(m_mutex);
        m_log.emplace_back("SHUTDOWN");
        Close();
    }

    template <class T>
    CallbackConnection Register(std::list<Registered<T>>& where, const std::string& what, const std::string& path,
                                const T& value)
    {
        const ScopedMutex lock(m_mutex);
        if (m_listener == nullptr)
        {
            m_log.push_back(what + " " + path);
        }
        where.push_back({path, value, m_connections.Connect({})});
        return where.back().connection;
    }
    void Close()
    {
        const ScopedMutex lock(m_mutex);
        if (m_listener != nullptr && m_isOpen)
        {
            m_listener->Closed(serviceName);
        }
        m_isOpen = false;
        m_connections.DisconnectAll();
        m_waiting.clear();
        m_subscriptions.clear();
        m_served.clear();
    }
    bool Finish(const std::string& path, const std::string& body, const std::string& error)
    {
        Done done;
        {
            const ScopedMutex lock(m_mutex);
            const auto request = std::find_if(m_waiting.begin(), m_waiting.end(),
                                              [&path](const auto& candidate) { return candidate.IsFor(path); });
            if (request == m_waiting.end())
            {
                return false;
            }
            done = request->value;
            m_waiting.erase(request);
        }
        done(body, error);
        return true;
    }
    std::vector<std::string> Texts(const TextsByPath& texts, const std::string& path) const
    {
        const ScopedMutex lock(m_mutex);
        const auto found = texts.find(path);
        return found != texts.end() ? found->second : std::vector<std::string>();
    }
    static std::string Text(const google::protobuf::Message& record)
    {
        return ProtoToMarkup::ToJson(record, true, false, false);
    }
    static std::string Name(Portico::Verb verb)
    {
        constexpr std::array kNames = {"GET", "POST", "PUT", "DELETE"};
        return kNames.at(static_cast<std::size_t>(verb));
    }

    mutable CThreadMutex m_mutex;
    FakePorticoListener* const m_listener; ///< if set, nothing is recorded
    bool m_isOpen = true;
    CallbackRegistry<> m_connections; ///< never called; counts connections that are in force
    std::list<Registered<Done>> m_waiting;
    std::list<Registered<Callback<std::string>>> m_subscriptions;
    std::list<Registered<std::pair<Portico::Verb, Endpoint>>> m_served;
    TextsByPath m_requests;
    TextsByPath m_notifications;
    std::vector<std::string> m_log;
};

/// The gateway, in the test's process, for the simulated engine and for real tasks. Replaces the client library while
/// it exists. Never answers by itself.
///
///     FakePortico portico;
///     auto aggregator = DiscoveryServiceAggregator::Create(task, controller);
///     ...                                                       // a report makes it send a request
///     auto remote = portico.Find("DiscoveryServiceAggregator-guid-1");
///     remote->AnswerText("/sonarix/info", R"({"guid":"guid-1"})");
///     remote->SendHeartbeat(HEARTBEAT_OFFLINE);
///     simulation.RunUntilIdle();                                // callbacks were posted to their task
///     auto own = portico.Find("DiscoveryServiceOverPortico");
///     auto answer = own->Call(Portico::Verb::POST, "/sonarix/private/products", R"({"state":"ONLINE"})");
class FakePortico final : public Portico::PorticoClientFactoryIF
{
public:
    FakePortico()
    {
        Portico::PorticoClient::SetFactoryOverride(this);
    }
    ~FakePortico() override
    {
        Portico::PorticoClient::SetFactoryOverride(nullptr);
    }

    /// Applies to connections created from now on. They record no Requests(), Notifications() and Log(), to save
    /// memory in long runs.
    void SetListener(FakePorticoListener* listener)
    {
        const ScopedMutex lock(m_mutex);
        m_listener = listener;
    }

    /// The latest connection of that service name, open or not. Null if there was none.
    std::shared_ptr<FakeConnection> Find(const std::string& serviceName) const
    {
        const ScopedMutex lock(m_mutex);
        const auto found =
            std::find_if(m_made.rbegin(), m_made.rend(),
                         [&serviceName](const auto& connection) { return connection->serviceName == serviceName; });
        return found == m_made.rend() ? nullptr : *found;
    }
    /// All connections so far, in order.
    std::vector<std::shared_ptr<FakeConnection>> Made() const
    {
        const ScopedMutex lock(m_mutex);
        return m_made;
    }

    std::shared_ptr<PorticoClientIF> Create(const std::string& serviceName, const std::string& /*host*/, int /*port*/,
                                            const std::string& subProtocol, const std::string& guid,
                                            Portico::ConnectCallback* /*connectCallback*/,
                                            const std::optional<Portico::HeartbeatCallback>& heartbeatCallback,
                                            const Portico::CommonClientCreationInfo& /*info*/) override
    {
        const ScopedMutex lock(m_mutex);
        auto connection =
            std::make_shared<FakeConnection>(serviceName, subProtocol, guid, heartbeatCallback, m_listener);
        m_made.push_back(connection);
        if (m_listener != nullptr)
        {
            m_listener->Opened(connection);
        }
        return {connection.get(), [connection](PorticoClientIF*) { connection->Close(); }};
    }

private:
    mutable CThreadMutex m_mutex;
    std::vector<std::shared_ptr<FakeConnection>> m_made;
    FakePorticoListener* m_listener = nullptr;
};
