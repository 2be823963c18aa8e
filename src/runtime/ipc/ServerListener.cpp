#include "runtime/ipc/ServerListenerIF.h"

#include "base/ListeningSocket.h"
#include "runtime/AcceptLoop.h"
#include "runtime/DPrint.h"
#include "runtime/ThreadMutex.h"
#include "runtime/ipc/ConnectorSocket.h"

namespace IL
{

namespace
{

using OnAccept = AsyncCallback<std::shared_ptr<Network::ConnectorSocket>>;

class ServerListener final : public ServerListenerIF
{
public:
    ServerListener(const std::string& name, NotifyTargetTaskIF* task)
        : m_log(std::make_shared<const DPrint>(name))
        , m_name(name)
        , m_task(task)
    {
    }
    ~ServerListener() override
    {
        ServerListener::Stop();
    }
    ServerListener(const ServerListener&) = delete;
    ServerListener& operator=(const ServerListener&) = delete;

    Network::Address Listen(const Network::Address& address, const OnAccept& onAccept) override
    {
        const std::string& path = address.ToString();
        const ScopedMutex lock(m_mutex);
        const std::string fault = m_acceptLoop ? "this listener listens already" : Bind(path, onAccept);
        if (!fault.empty())
        {
            DPRINTF(*m_log, DPrint::LEVEL_ERROR, "cannot listen on %s: %s", path.c_str(), fault.c_str());
            return {};
        }
        return address;
    }

    void Stop() override
    {
        const ScopedMutex lock(m_mutex);
        m_file.RemoveFile();
        m_acceptLoop.reset();
    }

private:
    /// Opens the socket and starts to accept. Returns the error, empty on success.
    std::string Bind(const std::string& path, const OnAccept& onAccept)
    {
        std::string fault = m_file.Open(path, 0660);
        if (!fault.empty())
        {
            return fault;
        }
        // The callback may run once after the listener has been destroyed on another thread.
        auto loop = std::make_unique<AcceptLoop>(
            m_task, m_name, path,
            [log = m_log, path, onAccept](int descriptor)
            {
                const auto socket = std::make_shared<Network::ConnectorSocket>(descriptor);
                DPRINTF(*log, DPrint::LEVEL_INFO, "%s: %s has connected", path.c_str(), socket->Peer().c_str());
                onAccept(socket);
            });
        fault = loop->Start(m_file.Release());
        if (!fault.empty())
        {
            m_file.RemoveFile();
            return fault;
        }
        m_acceptLoop = std::move(loop);
        return {};
    }

    const std::shared_ptr<const DPrint> m_log;
    const std::string m_name;
    NotifyTargetTaskIF* const m_task;
    CThreadMutex m_mutex; ///< guards the following members
    ListeningSocket m_file;
    std::unique_ptr<AcceptLoop> m_acceptLoop; ///< null before Listen() and after Stop()
};

} // namespace

std::shared_ptr<ServerListenerIF> CreateServerListener(const std::string& name, NotifyTargetTaskIF* task)
{
    return std::make_shared<ServerListener>(name, task);
}

} // namespace IL
