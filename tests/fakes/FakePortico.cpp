#include "FakePortico.h"

#include "CallbackRegistry.h"
#include "PorticoError.pb.h"
#include "ProtoToMarkup.h"

#include <algorithm>
#include <array>
#include <list>

namespace
{

using Done = Callback<std::string, std::string>;
using TextsByPath = std::map<std::string, std::vector<std::string>>;

std::string Text(const google::protobuf::Message& record)
{
    return ProtoToMarkup::ToJson(record, true, false, false);
}

std::string Name(Portico::Verb verb)
{
    constexpr std::array kNames = {"GET", "POST", "PUT", "DELETE"};
    return kNames.at(static_cast<std::size_t>(verb));
}

/// Something registered, until its connection is disconnected.
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

} // namespace

struct FakeConnection::State
{
    mutable CThreadMutex mutex;
    FakePorticoListener* listener = nullptr; ///< in its place nothing is kept
    std::string serviceName;
    bool isOpen = true;
    CallbackRegistry<> connections; ///< calls nobody: it only knows which of them are in force
    std::list<Registered<Done>> waiting;
    std::list<Registered<Callback<std::string>>> subscriptions;
    std::list<Registered<std::pair<Portico::Verb, Endpoint>>> served;
    TextsByPath requests;
    TextsByPath notifications;
    std::vector<std::string> log;

    template <class T>
    CallbackConnection Register(std::list<Registered<T>>& where, const std::string& what, const std::string& path,
                                const T& value)
    {
        const ScopedMutex lock(mutex);
        if (listener == nullptr)
        {
            log.push_back(what + " " + path);
        }
        where.push_back({path, value, connections.Connect({})});
        return where.back().connection;
    }

    void Close()
    {
        const ScopedMutex lock(mutex);
        if (listener != nullptr && isOpen)
        {
            listener->Closed(serviceName);
        }
        isOpen = false;
        connections.DisconnectAll();
        waiting.clear();
        subscriptions.clear();
        served.clear();
    }

    std::vector<std::string> Texts(const TextsByPath& texts, const std::string& path) const
    {
        const ScopedMutex lock(mutex);
        const auto found = texts.find(path);
        return found != texts.end() ? found->second : std::vector<std::string>();
    }

    bool Finish(const std::string& path, const std::string& body, const std::string& error)
    {
        Done done;
        {
            const ScopedMutex lock(mutex);
            const auto request = std::find_if(waiting.begin(), waiting.end(),
                                              [&path](const auto& candidate) { return candidate.IsFor(path); });
            if (request == waiting.end())
            {
                return false;
            }
            done = request->value;
            waiting.erase(request);
        }
        done(body, error);
        return true;
    }
};

/// The client that the tested code holds; its end closes the connection.
class FakeConnection::Client final : public PorticoClientIF
{
public:
    explicit Client(std::shared_ptr<State> state)
        : m_state(std::move(state))
    {
    }
    ~Client() override
    {
        m_state->Close();
    }

    CallbackConnection RegisterGet(const std::string& path, const GetHandler& handler,
                                   const Portico::EndpointScope& scope, const double& /*version*/,
                                   const std::string& /*label*/, const int& /*option*/) override
    {
        return Serve(Portico::Verb::GET, path, {handler, {}, scope});
    }

    CallbackConnection RegisterBody(Portico::Verb verb, const std::string& path, const BodyHandler& handler,
                                    const Portico::EndpointScope& scope, const double& /*version*/,
                                    const std::string& /*label*/, const int& /*option*/) override
    {
        return Serve(verb, path, {{}, handler, scope});
    }

    CallbackConnection RegisterNotificationText(const std::string& path, const Callback<std::string>& callback,
                                                const Portico::EndpointScope& /*scope*/, const double& /*version*/,
                                                const int& /*option*/) override
    {
        return m_state->Register(m_state->subscriptions, "SUBSCRIBE", path, callback);
    }

    CallbackConnection SendText(Portico::Verb verb, const std::string& path, const std::string& body, const Done& done,
                                const double& /*version*/) override
    {
        const ScopedMutex lock(m_state->mutex);
        if (m_state->listener != nullptr)
        {
            m_state->listener->Asked(m_state->serviceName, path);
        }
        else
        {
            m_state->requests[path].push_back(body);
        }
        return m_state->Register(m_state->waiting, Name(verb), path, done);
    }

    void SendNotification(const std::string& path, const google::protobuf::Message& message,
                          const double& /*version*/) override
    {
        if (m_state->listener != nullptr)
        {
            m_state->listener->Notified(path, message);
            return;
        }
        const std::string text = Text(message);
        const ScopedMutex lock(m_state->mutex);
        m_state->log.push_back("NOTIFY " + path);
        m_state->notifications[path].push_back(text);
    }

    void Shutdown() override
    {
        {
            const ScopedMutex lock(m_state->mutex);
            m_state->log.emplace_back("SHUTDOWN");
        }
        m_state->Close();
    }

private:
    CallbackConnection Serve(Portico::Verb verb, const std::string& path, const Endpoint& endpoint)
    {
        return m_state->Register(m_state->served, "SERVE " + Name(verb), path, {verb, endpoint});
    }

    const std::shared_ptr<State> m_state;
};

FakeConnection::FakeConnection(std::string name, std::string hostName, int portNumber, std::string protocol,
                               std::string product, std::optional<Portico::HeartbeatCallback> heartbeatCallback)
    : serviceName(std::move(name))
    , host(std::move(hostName))
    , port(portNumber)
    , subProtocol(std::move(protocol))
    , guid(std::move(product))
    , heartbeat(std::move(heartbeatCallback))
    , m_state(std::make_shared<State>())
{
}

bool FakeConnection::IsOpen() const
{
    const ScopedMutex lock(m_state->mutex);
    return m_state->isOpen;
}

std::vector<std::string> FakeConnection::Requests(const std::string& path) const
{
    return m_state->Texts(m_state->requests, path);
}

std::size_t FakeConnection::Waiting(const std::string& path) const
{
    const ScopedMutex lock(m_state->mutex);
    return static_cast<std::size_t>(std::count_if(m_state->waiting.begin(), m_state->waiting.end(),
                                                  [&path](const auto& request) { return request.IsFor(path); }));
}

bool FakeConnection::AnswerText(const std::string& path, const std::string& json)
{
    return m_state->Finish(path, json, {});
}

bool FakeConnection::Fail(const std::string& path, int code, int subcode, const std::string& message)
{
    Portico::Error error;
    error.set_code(code);
    error.set_subcode(subcode);
    error.set_message(message);
    return m_state->Finish(path, {}, Text(error));
}

bool FakeConnection::PushText(const std::string& path, const std::string& json)
{
    std::list<Registered<Callback<std::string>>> subscriptions;
    {
        const ScopedMutex lock(m_state->mutex);
        subscriptions = m_state->subscriptions;
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

bool FakeConnection::SendHeartbeat(PORTICO_CLIENT_ERRORS status)
{
    if (!heartbeat || !IsOpen())
    {
        return false;
    }
    (*heartbeat)(guid, status);
    return true;
}

std::optional<FakeConnection::Endpoint> FakeConnection::FindEndpoint(Portico::Verb verb, const std::string& path) const
{
    const ScopedMutex lock(m_state->mutex);
    for (const auto& endpoint : m_state->served)
    {
        if (endpoint.IsFor(path) && endpoint.value.first == verb)
        {
            return endpoint.value.second;
        }
    }
    return std::nullopt;
}

std::shared_ptr<const FakeAnswer> FakeConnection::Call(Portico::Verb verb, const std::string& path,
                                                       const std::string& json)
{
    const std::optional<Endpoint> endpoint = FindEndpoint(verb, path);
    if (!endpoint)
    {
        return nullptr;
    }
    auto answer = std::make_shared<FakeAnswer>();
    const auto fill = [answer](bool isError)
    {
        return PorticoClientIF::Response(
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

std::vector<std::string> FakeConnection::Notifications(const std::string& path) const
{
    return m_state->Texts(m_state->notifications, path);
}

std::vector<std::string> FakeConnection::Log() const
{
    const ScopedMutex lock(m_state->mutex);
    return m_state->log;
}

FakePortico::FakePortico()
{
    Portico::PorticoClient::SetFactoryOverride(this);
}

FakePortico::~FakePortico()
{
    Portico::PorticoClient::SetFactoryOverride(nullptr);
}

void FakePortico::SetListener(FakePorticoListener* listener)
{
    const ScopedMutex lock(m_mutex);
    m_listener = listener;
}

std::shared_ptr<FakeConnection> FakePortico::Find(const std::string& serviceName) const
{
    const ScopedMutex lock(m_mutex);
    const auto found =
        std::find_if(m_made.rbegin(), m_made.rend(),
                     [&serviceName](const auto& connection) { return connection->serviceName == serviceName; });
    return found == m_made.rend() ? nullptr : *found;
}

std::vector<std::shared_ptr<FakeConnection>> FakePortico::Made() const
{
    const ScopedMutex lock(m_mutex);
    return m_made;
}

std::shared_ptr<PorticoClientIF> FakePortico::Create(const std::string& serviceName, const std::string& host, int port,
                                                     const std::string& subProtocol, const std::string& guid,
                                                     Portico::ConnectCallback* /*connectCallback*/,
                                                     const std::optional<Portico::HeartbeatCallback>& heartbeatCallback,
                                                     const Portico::CommonClientCreationInfo& /*info*/)
{
    auto connection = std::make_shared<FakeConnection>(serviceName, host, port, subProtocol, guid, heartbeatCallback);
    auto client = std::make_shared<FakeConnection::Client>(connection->m_state);
    const ScopedMutex lock(m_mutex);
    m_made.push_back(connection);
    if (m_listener != nullptr)
    {
        connection->m_state->listener = m_listener;
        connection->m_state->serviceName = serviceName;
        m_listener->Opened(connection);
    }
    return client;
}
