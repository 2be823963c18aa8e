#pragma once

#include "PorticoClient.h"
#include "PorticoClientIF.h"
#include "ThreadMutex.h"

#include <atomic>
#include <cstddef>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

/// What a served endpoint answered to FakeConnection::Call. Filled in when the handler answers, perhaps later.
struct FakeAnswer
{
    std::atomic<bool> isDone{false}; ///< set last: what stands below may be read then
    bool isError = false;
    std::string body; ///< the record's JSON, on one line
};

/// One connection to the gateway that the tested code made, as the test sees it: it answers requests, pushes
/// notifications, sends heartbeats and calls served endpoints. Outlives the client itself; once that is gone or
/// shut down, IsOpen() is false and every operation that would call it does nothing and returns false.
/// Safe from any thread. Callbacks of the tested code run on the thread that calls the operation here.
class FakeConnection final
{
public:
    struct Endpoint
    {
        PorticoClientIF::GetHandler get;
        PorticoClientIF::BodyHandler body;
        Portico::EndpointScope scope = Portico::EndpointScope::PUBLIC;
    };

    /// How it was made.
    const std::string serviceName;
    const std::string host;
    const int port;
    const std::string subProtocol;
    const std::string guid;
    const std::optional<Portico::HeartbeatCallback> heartbeat; ///< a copy of it is what is on its way

    FakeConnection(std::string name, std::string hostName, int portNumber, std::string protocol, std::string product,
                   std::optional<Portico::HeartbeatCallback> heartbeatCallback);

    bool IsOpen() const;

    // --- what the tested code asked for ---
    std::vector<std::string> Requests(const std::string& path) const; ///< the bodies of all so far, in order
    std::size_t Waiting(const std::string& path) const;               ///< those without an answer yet

    /// Answers the oldest waiting request on `path`. False where there is none.
    bool AnswerText(const std::string& path, const std::string& json);
    bool Fail(const std::string& path, int code, int subcode, const std::string& message);

    // --- what the gateway sends by itself ---
    /// To all subscriptions of `path`. False where there is none.
    bool PushText(const std::string& path, const std::string& json);
    /// With the guid that the connection was opened for.
    bool SendHeartbeat(PORTICO_CLIENT_ERRORS status);

    // --- what the tested code serves ---
    std::optional<Endpoint> FindEndpoint(Portico::Verb verb, const std::string& path) const;
    /// Null where nobody serves it.
    std::shared_ptr<const FakeAnswer> Call(Portico::Verb verb, const std::string& path, const std::string& json = {});

    // --- what the tested code notified ---
    std::vector<std::string> Notifications(const std::string& path) const; ///< as one-line JSON, in order
    /// "SUBSCRIBE /path", "GET /path", "SERVE GET /path", "NOTIFY /path", "SHUTDOWN": everything, in order.
    std::vector<std::string> Log() const;

private:
    friend class FakePortico;
    class Client;
    struct State;

    const std::shared_ptr<State> m_state;
};

/// Hears of what the tested code does with its connections, on the thread that does it, at that moment.
class FakePorticoListener
{
public:
    virtual ~FakePorticoListener() = default;
    virtual void Opened(const std::shared_ptr<FakeConnection>& connection) = 0;
    virtual void Closed(const std::string& serviceName) = 0;
    virtual void Asked(const std::string& serviceName, const std::string& path) = 0;
    virtual void Notified(const std::string& path, const google::protobuf::Message& message) = 0;
};

/// The gateway in the same process, for the simulated engine and for real tasks. Takes the place of the client
/// library from its construction to its end. Never answers by itself.
///
///     FakePortico portico;
///     auto aggregator = DiscoveryServiceAggregator::Create(task, controller);
///     ...                                                       // a report makes it ask the product
///     auto remote = portico.Find("DiscoveryServiceAggregator-guid-1");
///     remote->AnswerText("/sonarix/info", R"({"guid":"guid-1"})");
///     remote->SendHeartbeat(HEARTBEAT_OFFLINE);
///     simulation.RunUntilIdle();                                // callbacks were posted to their task
///     auto own = portico.Find("DiscoveryServiceOverPortico");
///     auto answer = own->Call(Portico::Verb::POST, "/sonarix/private/products", R"({"state":"ONLINE"})");
class FakePortico final : public Portico::PorticoClientFactoryIF
{
public:
    FakePortico();
    ~FakePortico() override;

    /// For connections made from now on; they keep no Requests(), Notifications() and Log(), for the sake of long runs.
    void SetListener(FakePorticoListener* listener);

    /// The latest connection of that service name, open or not; null where there was none.
    std::shared_ptr<FakeConnection> Find(const std::string& serviceName) const;
    /// Every connection made so far, in order.
    std::vector<std::shared_ptr<FakeConnection>> Made() const;

    std::shared_ptr<PorticoClientIF> Create(const std::string& serviceName, const std::string& host, int port,
                                            const std::string& subProtocol, const std::string& guid,
                                            Portico::ConnectCallback* connectCallback,
                                            const std::optional<Portico::HeartbeatCallback>& heartbeatCallback,
                                            const Portico::CommonClientCreationInfo& info) override;

private:
    mutable CThreadMutex m_mutex;
    std::vector<std::shared_ptr<FakeConnection>> m_made;
    FakePorticoListener* m_listener = nullptr;
};
