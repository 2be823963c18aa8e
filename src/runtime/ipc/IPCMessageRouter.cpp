#include "runtime/ipc/IPCMessageRouterIF.h"

#include "runtime/DPrint.h"
#include "runtime/Liveness.h"
#include "runtime/Task.h"
#include "runtime/TaskCheck.h"
#include "runtime/ThreadMutex.h"
#include "runtime/ipc/ConnectorSocket.h"
#include "runtime/ipc/IPCConnection.h"

#include <atomic>
#include <map>
#include <utility>

namespace
{

using Handler = std::function<void(const IPCMessageEnvelope&)>;

/// Design: the connection's handlers hold the router weakly, and the connection is closed on its own task. The router
/// may therefore be destroyed on any thread, and inside a handler.
class IPCMessageRouter final : public IPCMessageRouterIF, public std::enable_shared_from_this<IPCMessageRouter>
{
public:
    IPCMessageRouter(const std::string& name, NotifyTargetTaskIF* task,
                     std::shared_ptr<Network::ConnectorSocket> socket)
        : m_log(std::make_shared<const DPrint>(name))
        , m_task(task)
        , m_socket(std::move(socket))
    {
    }
    ~IPCMessageRouter() override
    {
        IPCMessageRouter::Stop();
    }
    IPCMessageRouter(const IPCMessageRouter&) = delete;
    IPCMessageRouter& operator=(const IPCMessageRouter&) = delete;

    void Start(std::shared_ptr<Network::ConnectorSocket> socket, const Callback<void>& onDisconnect) override;
    void Stop() override;
    void SendNotification(unsigned int id, const IPCMessageEnvelope& envelope) override;
    void SendResponse(unsigned int id, const IPCMessageEnvelope& envelope, unsigned int tid) override;
    CallbackConnection AttachHandler(unsigned int id, const Handler& handler) override;
    void RejectRequest(const IPCMessageEnvelope& envelope) override;

private:
    void Dispatch(const IPCMessageEnvelope& envelope);
    void Send(IPCMessageEnvelopeBase::Kind kind, unsigned int id, unsigned int tid, IPCMessageEnvelope envelope);
    void WarnOnce(std::atomic<bool>& hasWarned, const char* what, const IPCMessageEnvelope& envelope) const;
    std::shared_ptr<IPCConnection> Connection();

    const std::shared_ptr<const DPrint> m_log;
    NotifyTargetTaskIF* const m_task;
    std::shared_ptr<Network::ConnectorSocket> m_socket;
    std::map<unsigned int, std::shared_ptr<const Handler>> m_handlers;
    std::atomic<bool> m_hasWarnedUnknown{false};
    std::atomic<bool> m_hasWarnedReject{false};
    CThreadMutex m_mutex; ///< guards m_connection
    std::shared_ptr<IPCConnection> m_connection;
};

void IPCMessageRouter::Start(std::shared_ptr<Network::ConnectorSocket> socket, const Callback<void>& onDisconnect)
{
    TASK_CHECK(m_task);
    const std::shared_ptr<Network::ConnectorSocket> used =
        socket ? std::move(socket) : std::exchange(m_socket, nullptr);
    const int descriptor = used ? used->Release() : -1;
    if (descriptor < 0)
    {
        onDisconnect();
        return;
    }
    const auto connection = std::make_shared<IPCConnection>(m_task, m_log, descriptor, used->Peer());
    {
        const ScopedMutex lock(m_mutex);
        m_connection = connection;
    }
    IPCConnection::Handlers handlers;
    handlers.envelope =
        Liveness::Weakly(shared_from_this(), [](IPCMessageRouter& router, const IPCMessageEnvelope& envelope)
                         { router.Dispatch(envelope); });
    handlers.closed = [onDisconnect] { onDisconnect(); };
    connection->Start(std::move(handlers));
}

void IPCMessageRouter::Stop()
{
    std::shared_ptr<IPCConnection> connection;
    {
        const ScopedMutex lock(m_mutex);
        connection.swap(m_connection);
    }
    if (!connection)
    {
        return;
    }
    if (m_task->IsCurrent())
    {
        connection->Close();
    }
    else
    {
        IL::BreakThread([connection] { connection->Close(); }, m_task);
    }
}

std::shared_ptr<IPCConnection> IPCMessageRouter::Connection()
{
    const ScopedMutex lock(m_mutex);
    return m_connection;
}

void IPCMessageRouter::SendNotification(unsigned int id, const IPCMessageEnvelope& envelope)
{
    Send(IPCMessageEnvelopeBase::NOTIFICATION, id, 0, envelope);
}

void IPCMessageRouter::SendResponse(unsigned int id, const IPCMessageEnvelope& envelope, unsigned int tid)
{
    Send(IPCMessageEnvelopeBase::RESPONSE, id, tid, envelope);
}

void IPCMessageRouter::RejectRequest(const IPCMessageEnvelope& envelope)
{
    WarnOnce(m_hasWarnedReject, "is rejected: its payload does not match the identifier", envelope);
    Send(IPCMessageEnvelopeBase::REJECT, envelope->id(), envelope->tid(), {});
}

/// A response that is too large for a frame is replaced by a reject, so that the client does not wait for it.
void IPCMessageRouter::Send(IPCMessageEnvelopeBase::Kind kind, unsigned int id, unsigned int tid,
                            IPCMessageEnvelope envelope)
{
    const std::shared_ptr<IPCConnection> connection = Connection();
    if (!connection)
    {
        return;
    }
    envelope->set_kind(kind);
    envelope->set_id(id);
    envelope->set_tid(tid);
    envelope->mutable_payload(); // on the wire even if it is empty
    std::string frame;
    if (IPCFraming::AppendFrame(frame, envelope))
    {
        connection->Send(frame);
        return;
    }
    DPRINTF(*m_log, DPrint::LEVEL_ERROR, "%s of %zu bytes, id %u, is too large to send",
            envelope->payload_type().c_str(), envelope->payload().size(), id);
    if (kind == IPCMessageEnvelopeBase::RESPONSE)
    {
        Send(IPCMessageEnvelopeBase::REJECT, id, tid, {});
    }
}

CallbackConnection IPCMessageRouter::AttachHandler(unsigned int id, const Handler& handler)
{
    TASK_CHECK(m_task);
    m_handlers[id] = std::make_shared<const Handler>(handler);
    return {};
}

void IPCMessageRouter::Dispatch(const IPCMessageEnvelope& envelope)
{
    TASK_CHECK(m_task);
    const auto found = m_handlers.find(envelope->id());
    if (envelope->kind() == IPCMessageEnvelopeBase::REQUEST && found != m_handlers.end())
    {
        const std::shared_ptr<const Handler> handler = found->second; // the handler may attach another one for its id
        (*handler)(envelope);
    }
    else
    {
        WarnOnce(m_hasWarnedUnknown, "has no handler and is not answered", envelope);
    }
}

/// Logs once per connection, so that a faulty client cannot flood the log.
void IPCMessageRouter::WarnOnce(std::atomic<bool>& hasWarned, const char* what,
                                const IPCMessageEnvelope& envelope) const
{
    if (!hasWarned.exchange(true))
    {
        DPRINT(*m_log, DPrint::LEVEL_WARNING,
               "id " << envelope->id() << ", kind " << envelope->kind() << ", \"" << envelope->payload_type() << "\" "
                     << what);
    }
}

} // namespace

std::shared_ptr<IPCMessageRouterIF>
IPCMessageRouterFactory::CreateRouter(const std::string& name, NotifyTargetTaskIF* task,
                                      std::shared_ptr<Network::ConnectorSocket> socket)
{
    return std::make_shared<IPCMessageRouter>(name, task, std::move(socket));
}
