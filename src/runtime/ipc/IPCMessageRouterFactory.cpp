#include "runtime/ipc/IPCMessageRouterFactory.h"

#include "runtime/DPrint.h"
#include "runtime/Task.h"
#include "runtime/ThreadMutex.h"
#include "runtime/ipc/ConnectorSocket.h"
#include "runtime/ipc/IPCConnection.h"
#include "runtime/ipc/IPCMessageRouterIF.h"

#include <atomic>
#include <map>
#include <utility>

namespace
{

using Handler = std::function<void(const IPCMessageEnvelope&)>;

/// Design: what the connection calls holds the router weakly, and the connection is told to close on its task: so the
/// router may go on any thread, from inside a handler too.
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
    void Send(IPCMessageEnvelope::Kind kind, unsigned int id, unsigned int tid, IPCMessageEnvelope envelope);
    void SayOnce(std::atomic<bool>& isSaid, const char* what, const IPCMessageEnvelope& envelope) const;
    std::shared_ptr<IPCConnection> Connection();

    const std::shared_ptr<const DPrint> m_log;
    NotifyTargetTaskIF* const m_task;
    std::shared_ptr<Network::ConnectorSocket> m_socket;
    std::map<unsigned int, std::shared_ptr<const Handler>> m_handlers;
    std::atomic<bool> m_isUnknownSaid{false};
    std::atomic<bool> m_isRejectSaid{false};
    CThreadMutex m_mutex; ///< guards what follows
    std::shared_ptr<IPCConnection> m_connection;
};

void IPCMessageRouter::Start(std::shared_ptr<Network::ConnectorSocket> socket, const Callback<void>& onDisconnect)
{
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
    handlers.envelope = [weak = weak_from_this()](const IPCMessageEnvelope& envelope)
    {
        if (const std::shared_ptr<IPCMessageRouter> self = weak.lock())
        {
            self->Dispatch(envelope);
        }
    };
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
    Send(IPCMessageEnvelope::NOTIFICATION, id, 0, envelope);
}

void IPCMessageRouter::SendResponse(unsigned int id, const IPCMessageEnvelope& envelope, unsigned int tid)
{
    Send(IPCMessageEnvelope::RESPONSE, id, tid, envelope);
}

void IPCMessageRouter::RejectRequest(const IPCMessageEnvelope& envelope)
{
    SayOnce(m_isRejectSaid, "is rejected: its payload is of another type", envelope);
    Send(IPCMessageEnvelope::REJECT, envelope.id(), envelope.tid(), {});
}

/// What does not fit into a frame is refused to whoever asked for it.
void IPCMessageRouter::Send(IPCMessageEnvelope::Kind kind, unsigned int id, unsigned int tid,
                            IPCMessageEnvelope envelope)
{
    const std::shared_ptr<IPCConnection> connection = Connection();
    if (!connection)
    {
        return;
    }
    envelope.set_kind(kind);
    envelope.set_id(id);
    envelope.set_tid(tid);
    std::string frame;
    if (IPCFraming::AppendFrame(frame, envelope))
    {
        connection->Send(frame);
        return;
    }
    DPRINTF(*m_log, DPrint::LEVEL_ERROR, "%s of %zu bytes, id %u: too large to be sent",
            envelope.payload_type().c_str(), envelope.payload().size(), id);
    if (kind == IPCMessageEnvelope::RESPONSE)
    {
        Send(IPCMessageEnvelope::REJECT, id, tid, {});
    }
}

CallbackConnection IPCMessageRouter::AttachHandler(unsigned int id, const Handler& handler)
{
    m_handlers[id] = std::make_shared<const Handler>(handler);
    return {};
}

void IPCMessageRouter::Dispatch(const IPCMessageEnvelope& envelope)
{
    const auto found = m_handlers.find(envelope.id());
    if (envelope.kind() == IPCMessageEnvelope::REQUEST && found != m_handlers.end())
    {
        const std::shared_ptr<const Handler> handler = found->second; // it may attach another in its place
        (*handler)(envelope);
    }
    else
    {
        SayOnce(m_isUnknownSaid, "is not answered: nothing serves it", envelope);
    }
}

/// Once a connection: a client that goes on with it fills no log.
void IPCMessageRouter::SayOnce(std::atomic<bool>& isSaid, const char* what, const IPCMessageEnvelope& envelope) const
{
    if (!isSaid.exchange(true))
    {
        DPRINT(*m_log, DPrint::LEVEL_WARNING,
               "id " << envelope.id() << ", kind " << envelope.kind() << ", \"" << envelope.payload_type() << "\" "
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
