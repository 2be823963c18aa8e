#include "tools/simulated/SimulatedGateway.h"

#include "jsonrpc/Frame.h"
#include "runtime/TaskCheck.h"
#include "websocket/WebSocket.h"

#include <utility>

namespace
{

const std::string kInfoPath = "/sonarix/info";
constexpr const char* kSubProtocol = "tarsier";
constexpr std::size_t kMaxMessageBytes = 64U << 10U;

JsonRpc::Answer ResponseTo(const JsonRpc::Frame& frame, const std::string& guid, const std::string& record, bool isOpen)
{
    using JsonRpc::Answer;
    const JsonRpc::Params& params = frame.params;
    if (!params.malformed.empty())
    {
        return Answer::Error(JsonRpc::INVALID_PARAMS, "malformed: " + params.malformed, guid);
    }
    if (frame.method == "open")
    {
        return params.guid.empty()
                   ? Answer::Empty()
                   : Answer::Error(JsonRpc::INVALID_PARAMS, "other products cannot be reached through this one", guid);
    }
    if (!isOpen)
    {
        return Answer::Error(JsonRpc::INVALID_REQUEST, "the first request must be open", guid);
    }
    if (frame.method != "get" && frame.method != "subscribe")
    {
        return Answer::Error(JsonRpc::METHOD_NOT_FOUND, frame.method + " is not allowed", guid);
    }
    if (params.path != kInfoPath)
    {
        return Answer::Error(JsonRpc::NOT_SERVED, "nobody serves " + params.path.value_or("no path"), guid);
    }
    return frame.method == "get" ? Answer::Result(record) : Answer::Empty();
}

} // namespace

SimulatedGateway::SimulatedGateway(NotifyTargetTaskIF* task, std::string guid, std::string address, std::uint16_t port,
                                   std::uint64_t& requestCount)
    : m_task(task)
    , m_guid(std::move(guid))
    , m_address(std::move(address))
    , m_port(port)
    , m_requestCount(requestCount)
{
}

SimulatedGateway::~SimulatedGateway()
{
    TASK_CHECK(m_task);
}

bool SimulatedGateway::Listen(std::string& error)
{
    TASK_CHECK(m_task);
    if (m_listener != nullptr)
    {
        return true;
    }
    WebSocket::ListenOptions options;
    options.address = m_address;
    options.port = m_port;
    options.subProtocols = {kSubProtocol};
    options.maxConnections = kMaxConnections;
    options.limits.maxMessageBytes = kMaxMessageBytes;
    m_listener = WebSocket::Listen(
        m_task, options,
        [this](std::shared_ptr<WebSocket::Connection> connection) { HandleAccepted(std::move(connection)); }, error);
    return m_listener != nullptr;
}

void SimulatedGateway::Close()
{
    TASK_CHECK(m_task);
    m_listener.reset();
    m_clients.clear();
}

void SimulatedGateway::SetRecord(std::string json)
{
    TASK_CHECK(m_task);
    m_record = std::move(json);
    const std::string frame = JsonRpc::TextFromNotification(kInfoPath, "1.0", m_record);
    for (auto& [number, client] : m_clients)
    {
        if (client.isSubscribed)
        {
            client.connection->Send(frame);
        }
    }
}

void SimulatedGateway::HandleAccepted(std::shared_ptr<WebSocket::Connection> connection)
{
    TASK_CHECK(m_task);
    const std::uint64_t number = ++m_clientNumber;
    Client& client = m_clients[number];
    client.connection = std::move(connection);
    client.connection->SetHandlers({nullptr, [this, &client](const std::string& text) { HandleMessage(client, text); },
                                    [this, number](const std::string&) { m_clients.erase(number); }});
}

void SimulatedGateway::HandleMessage(Client& client, const std::string& text)
{
    TASK_CHECK(m_task);
    ++m_requestCount;
    const JsonRpc::Frame frame = JsonRpc::FrameFromText(text);
    if (frame.kind == JsonRpc::Frame::Kind::INVALID)
    {
        client.connection->Send(JsonRpc::TextFromAnswer(frame.id.value_or("null"), frame.answer));
        return;
    }
    if (frame.kind == JsonRpc::Frame::Kind::ANSWER)
    {
        return;
    }
    const JsonRpc::Answer answer = ResponseTo(frame, m_guid, m_record, client.isOpen);
    if (frame.id)
    {
        client.connection->Send(JsonRpc::TextFromAnswer(*frame.id, answer));
    }
    if (answer.IsError())
    {
        return;
    }
    client.isOpen = true;
    if (frame.method == "subscribe")
    {
        client.isSubscribed = true;
        client.connection->Send(JsonRpc::TextFromNotification(kInfoPath, "1.0", m_record));
    }
}
