#include "FakePortico.h"

#include "PorticoError.pb.h"
#include "ProtoToMarkup.h"

#include <algorithm>
#include <list>

namespace
{

std::string Text(const google::protobuf::Message& record)
{
    return ProtoToMarkup::ToJson(record, true, false, false);
}

const char* Name(Portico::Verb verb)
{
    switch (verb)
    {
    case Portico::Verb::GET:
        return "GET";
    case Portico::Verb::POST:
        return "POST";
    case Portico::Verb::PUT:
        return "PUT";
    case Portico::Verb::DELETE:
        break;
    }
    return "DELETE";
}

/// Something registered, until Disconnect().
template <class T>
struct Registered final : public CallbackConnectionIF
{
    Registered(std::shared_ptr<CThreadMutex> lock, std::string name, T what)
        : mutex(std::move(lock))
        , path(std::move(name))
        , value(std::move(what))
    {
    }
    void Disconnect() override
    {
        const ScopedMutex lock(*mutex);
        isConnected = false;
    }
    bool IsConnected() const override
    {
        const ScopedMutex lock(*mutex);
        return isConnected;
    }

    const std::shared_ptr<CThreadMutex> mutex;
    const std::string path;
    const T value;
    bool isConnected = true;
};

using Done = Callback<std::string, std::string>;
using WaitingRequest = Registered<Done>;
using Subscription = Registered<Callback<std::string>>;
using Served = Registered<std::pair<Portico::Verb, FakeConnection::Endpoint>>;

} // namespace

struct FakeConnection::State
{
    const std::shared_ptr<CThreadMutex> mutex = std::make_shared<CThreadMutex>();
    bool isOpen = true;
    std::optional<Portico::ConnectCallback> connect;
    std::optional<Portico::HeartbeatCallback> heartbeat;
    std::vector<FakeRequest> requests;
    std::list<std::shared_ptr<WaitingRequest>> waiting;
    std::map<std::string, std::string> always;
    std::vector<std::shared_ptr<Subscription>> subscriptions;
    std::vector<std::shared_ptr<Served>> served;
    std::vector<std::pair<std::string, std::string>> notifications;
    std::vector<std::string> log;

    void Close()
    {
        const ScopedMutex lock(*mutex);
        isOpen = false;
        waiting.clear();
        subscriptions.clear();
        served.clear();
    }

    std::shared_ptr<WaitingRequest> TakeWaiting(const std::string& path)
    {
        const ScopedMutex lock(*mutex);
        for (auto request = waiting.begin(); request != waiting.end();)
        {
            std::shared_ptr<WaitingRequest> taken = *request;
            if (!taken->isConnected)
            {
                request = waiting.erase(request);
                continue;
            }
            if (taken->path == path)
            {
                waiting.erase(request);
                return taken;
            }
            ++request;
        }
        return nullptr;
    }

    std::shared_ptr<Served> FindServed(Portico::Verb verb, const std::string& path) const
    {
        const ScopedMutex lock(*mutex);
        for (const std::shared_ptr<Served>& endpoint : served)
        {
            if (endpoint->isConnected && endpoint->path == path && endpoint->value.first == verb)
            {
                return endpoint;
            }
        }
        return nullptr;
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
                                   const Portico::EndpointScope& scope, const double& version, const std::string& label,
                                   const int& option) override
    {
        return Serve(Portico::Verb::GET, path, {handler, {}, scope, version, label, option});
    }

    CallbackConnection RegisterBody(Portico::Verb verb, const std::string& path, const BodyHandler& handler,
                                    const Portico::EndpointScope& scope, const double& version,
                                    const std::string& label, const int& option) override
    {
        return Serve(verb, path, {{}, handler, scope, version, label, option});
    }

    CallbackConnection RegisterNotificationText(const std::string& path, const Callback<std::string>& callback,
                                                const Portico::EndpointScope& /*scope*/, const double& /*version*/,
                                                const int& /*option*/) override
    {
        const ScopedMutex lock(*m_state->mutex);
        m_state->log.push_back("SUBSCRIBE " + path);
        auto subscription = std::make_shared<Subscription>(m_state->mutex, path, callback);
        m_state->subscriptions.push_back(subscription);
        return CallbackConnection(subscription);
    }

    CallbackConnection SendText(Portico::Verb verb, const std::string& path, const std::string& body,
                                const Callback<std::string, std::string>& done, const double& version) override
    {
        auto request = std::make_shared<WaitingRequest>(m_state->mutex, path, done);
        std::optional<std::string> answer;
        {
            const ScopedMutex lock(*m_state->mutex);
            m_state->log.push_back(std::string(Name(verb)) + " " + path);
            m_state->requests.push_back({verb, path, body, version});
            const auto always = m_state->always.find(path);
            if (always != m_state->always.end())
            {
                answer = always->second;
            }
            else
            {
                m_state->waiting.push_back(request);
            }
        }
        if (answer)
        {
            done(*answer, std::string());
        }
        return CallbackConnection(request);
    }

    void SendNotification(const std::string& path, const google::protobuf::Message& message,
                          const double& /*version*/) override
    {
        const std::string text = Text(message);
        const ScopedMutex lock(*m_state->mutex);
        m_state->log.push_back("NOTIFY " + path);
        m_state->notifications.emplace_back(path, text);
    }

    void Shutdown() override
    {
        {
            const ScopedMutex lock(*m_state->mutex);
            m_state->log.push_back("SHUTDOWN");
        }
        m_state->Close();
    }

private:
    CallbackConnection Serve(Portico::Verb verb, const std::string& path, Endpoint endpoint)
    {
        const ScopedMutex lock(*m_state->mutex);
        m_state->log.push_back(std::string("SERVE ") + Name(verb) + " " + path);
        auto served = std::make_shared<Served>(m_state->mutex, path, std::make_pair(verb, std::move(endpoint)));
        m_state->served.push_back(served);
        return CallbackConnection(served);
    }

    const std::shared_ptr<State> m_state;
};

FakeConnection::FakeConnection(std::string name, std::string hostName, int portNumber, std::string protocol,
                               std::string product, Portico::ConnectCallback* connect,
                               const std::optional<Portico::HeartbeatCallback>& heartbeat)
    : serviceName(std::move(name))
    , host(std::move(hostName))
    , port(portNumber)
    , subProtocol(std::move(protocol))
    , guid(std::move(product))
    , m_state(std::make_shared<State>())
{
    if (connect != nullptr)
    {
        m_state->connect = *connect;
    }
    m_state->heartbeat = heartbeat;
}

FakeConnection::~FakeConnection() = default;

bool FakeConnection::IsOpen() const
{
    const ScopedMutex lock(*m_state->mutex);
    return m_state->isOpen;
}

std::vector<FakeRequest> FakeConnection::Requests(const std::string& path) const
{
    const ScopedMutex lock(*m_state->mutex);
    std::vector<FakeRequest> found;
    for (const FakeRequest& request : m_state->requests)
    {
        if (request.path == path)
        {
            found.push_back(request);
        }
    }
    return found;
}

std::size_t FakeConnection::Waiting(const std::string& path) const
{
    const ScopedMutex lock(*m_state->mutex);
    std::size_t count = 0;
    for (const std::shared_ptr<WaitingRequest>& request : m_state->waiting)
    {
        count += request->isConnected && request->path == path ? 1U : 0U;
    }
    return count;
}

bool FakeConnection::Answer(const std::string& path, const google::protobuf::Message& record)
{
    return AnswerText(path, Text(record));
}

bool FakeConnection::AnswerText(const std::string& path, const std::string& json)
{
    const std::shared_ptr<WaitingRequest> request = m_state->TakeWaiting(path);
    if (request)
    {
        request->value(json, std::string());
    }
    return request != nullptr;
}

bool FakeConnection::Fail(const std::string& path, int code, int subcode, const std::string& message,
                          const std::string& product)
{
    Portico::Error error;
    error.set_code(code);
    error.set_subcode(subcode);
    error.set_message(message);
    error.set_guid(product);
    const std::shared_ptr<WaitingRequest> request = m_state->TakeWaiting(path);
    if (request)
    {
        request->value(std::string(), Text(error));
    }
    return request != nullptr;
}

void FakeConnection::AnswerAlways(const std::string& path, const std::string& json)
{
    const ScopedMutex lock(*m_state->mutex);
    m_state->always[path] = json;
}

std::size_t FakeConnection::Subscriptions(const std::string& path) const
{
    const ScopedMutex lock(*m_state->mutex);
    std::size_t count = 0;
    for (const std::shared_ptr<Subscription>& subscription : m_state->subscriptions)
    {
        count += subscription->isConnected && subscription->path == path ? 1U : 0U;
    }
    return count;
}

bool FakeConnection::Push(const std::string& path, const google::protobuf::Message& record)
{
    return PushText(path, Text(record));
}

bool FakeConnection::PushText(const std::string& path, const std::string& json)
{
    std::vector<std::shared_ptr<Subscription>> subscriptions;
    {
        const ScopedMutex lock(*m_state->mutex);
        subscriptions = m_state->subscriptions;
    }
    bool isPushed = false;
    for (const std::shared_ptr<Subscription>& subscription : subscriptions)
    {
        if (subscription->path == path && subscription->IsConnected())
        {
            subscription->value(json);
            isPushed = true;
        }
    }
    return isPushed;
}

bool FakeConnection::SendHeartbeat(PORTICO_CLIENT_ERRORS status)
{
    const std::optional<Portico::HeartbeatCallback> heartbeat = Heartbeat();
    if (!heartbeat || !IsOpen())
    {
        return false;
    }
    (*heartbeat)(guid, status);
    return true;
}

std::optional<Portico::HeartbeatCallback> FakeConnection::Heartbeat() const
{
    const ScopedMutex lock(*m_state->mutex);
    return m_state->heartbeat;
}

bool FakeConnection::SendConnected(bool isConnected)
{
    std::optional<Portico::ConnectCallback> connect;
    {
        const ScopedMutex lock(*m_state->mutex);
        connect = m_state->connect;
    }
    if (!connect || !IsOpen())
    {
        return false;
    }
    (*connect)(isConnected);
    return true;
}

bool FakeConnection::Serves(Portico::Verb verb, const std::string& path) const
{
    return m_state->FindServed(verb, path) != nullptr;
}

std::optional<FakeConnection::Endpoint> FakeConnection::FindEndpoint(Portico::Verb verb, const std::string& path) const
{
    const std::shared_ptr<Served> served = m_state->FindServed(verb, path);
    return served ? std::optional<Endpoint>(served->value.second) : std::nullopt;
}

std::shared_ptr<const FakeAnswer> FakeConnection::Call(Portico::Verb verb, const std::string& path,
                                                       const std::string& json)
{
    const std::shared_ptr<Served> served = m_state->FindServed(verb, path);
    if (!served)
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
    const Endpoint& endpoint = served->value.second;
    if (verb == Portico::Verb::GET)
    {
        endpoint.get(fill(false), fill(true));
    }
    else
    {
        endpoint.body(json, fill(false), fill(true));
    }
    return answer;
}

std::vector<std::string> FakeConnection::Notifications(const std::string& path) const
{
    const ScopedMutex lock(*m_state->mutex);
    std::vector<std::string> found;
    for (const auto& [notified, text] : m_state->notifications)
    {
        if (notified == path)
        {
            found.push_back(text);
        }
    }
    return found;
}

void FakeConnection::ForgetNotifications()
{
    const ScopedMutex lock(*m_state->mutex);
    m_state->notifications.clear();
}

std::vector<std::string> FakeConnection::Log() const
{
    const ScopedMutex lock(*m_state->mutex);
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

std::shared_ptr<FakeConnection> FakePortico::Find(const std::string& serviceName) const
{
    const ScopedMutex lock(m_mutex);
    const auto found = std::find_if(m_made.rbegin(), m_made.rend(),
                                    [&serviceName](const std::shared_ptr<FakeConnection>& connection)
                                    { return connection->serviceName == serviceName; });
    return found == m_made.rend() ? nullptr : *found;
}

std::vector<std::shared_ptr<FakeConnection>> FakePortico::Made(const std::string& serviceName) const
{
    const ScopedMutex lock(m_mutex);
    if (serviceName.empty())
    {
        return m_made;
    }
    std::vector<std::shared_ptr<FakeConnection>> found;
    for (const std::shared_ptr<FakeConnection>& connection : m_made)
    {
        if (connection->serviceName == serviceName)
        {
            found.push_back(connection);
        }
    }
    return found;
}

std::size_t FakePortico::OpenConnections() const
{
    std::size_t count = 0;
    for (const std::shared_ptr<FakeConnection>& connection : Made())
    {
        count += connection->IsOpen() ? 1U : 0U;
    }
    return count;
}

std::shared_ptr<PorticoClientIF> FakePortico::Create(const std::string& serviceName, const std::string& host, int port,
                                                     const std::string& subProtocol, const std::string& guid,
                                                     Portico::ConnectCallback* connectCallback,
                                                     const std::optional<Portico::HeartbeatCallback>& heartbeatCallback,
                                                     const Portico::CommonClientCreationInfo& /*info*/)
{
    auto connection = std::make_shared<FakeConnection>(serviceName, host, port, subProtocol, guid, connectCallback,
                                                       heartbeatCallback);
    auto client = std::make_shared<FakeConnection::Client>(connection->m_state);
    const ScopedMutex lock(m_mutex);
    m_made.push_back(std::move(connection));
    return client;
}
