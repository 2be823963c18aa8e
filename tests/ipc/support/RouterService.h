#pragma once

#include "runtime/AsyncCallback.h"
#include "runtime/Liveness.h"
#include "runtime/ipc/ConnectorSocket.h"
#include "runtime/ipc/IPCMessageEnvelope.h"
#include "runtime/ipc/IPCMessageRouterIF.h"
#include "runtime/ipc/ServerListenerIF.h"
#include "schemas/SonarixPb.pb.h"
#include "tests/support/RealTask.h"
#include "tests/support/TempDirectory.h"
#include "tests/support/Watched.h"

#include <memory>
#include <set>
#include <stdexcept>
#include <string>

/// A minimal local service: request 1, a ServiceId, is answered with the same record; request 2 is not answered.
class RouterService final
{
public:
    using Router = std::shared_ptr<IPCMessageRouterIF>;

    RouterService()
        : m_listener(IL::CreateServerListener("Listener", m_task.Get()))
    {
        const AsyncCallback<std::shared_ptr<Network::ConnectorSocket>> serve(
            [this](const std::shared_ptr<Network::ConnectorSocket>& socket) { Serve(socket); }, m_task.Get());
        if (!m_listener->Listen(Network::Address(path), serve))
        {
            throw std::runtime_error("cannot listen on " + path);
        }
    }
    ~RouterService()
    {
        m_listener->Stop();
        m_task.Run([this] { m_routers.clear(); });
        m_task.StopAndJoin();
    }
    RouterService(const RouterService&) = delete;
    RouterService& operator=(const RouterService&) = delete;

    const RealTask& Task() const
    {
        return m_task;
    }
    /// Notifies all clients. To be called on the test's thread, because it waits for the service's task.
    void NotifyAll(const std::string& name)
    {
        SonarixPb::ServiceId id;
        id.set_name(name);
        IPCMessageEnvelope envelope;
        envelope.SetPayload(id);
        std::set<Router> routers;
        m_task.Run([&] { routers = m_routers; });
        for (const Router& router : routers)
        {
            router->SendNotification(9, envelope);
        }
    }
    void AwaitClients(std::size_t count) const
    {
        clients.WaitFor(count, std::chrono::seconds(60));
    }

private:
    TempDirectory m_directory;
    RealTask m_task;
    std::shared_ptr<IL::ServerListenerIF> m_listener;
    std::set<Router> m_routers; ///< used on the task only

public:
    const std::string path = m_directory.Path() + "/socket";
    Watched<std::size_t> clients;
    Watched<int> unanswered; ///< number of requests 2

private:
    void Serve(const std::shared_ptr<Network::ConnectorSocket>& socket)
    {
        const Router router = IPCMessageRouterFactory::CreateRouter("Router", m_task.Get(), nullptr);
        router->AttachForRequest(
            1, AsyncCallback<SonarixPb::ServiceId, unsigned int>(
                   Liveness::Weakly(router,
                                    [](IPCMessageRouterIF& asked, const SonarixPb::ServiceId& id, unsigned int tid)
                                    {
                                        IPCMessageEnvelope envelope;
                                        envelope.SetPayload(id);
                                        asked.SendResponse(1, envelope, tid);
                                    }),
                   m_task.Get()));
        router->AttachHandler(2, [this](const IPCMessageEnvelope&) { unanswered.Change([](int& count) { ++count; }); });
        m_routers.insert(router);
        clients.Set(m_routers.size());
        router->Start(socket, AsyncCallback<>(
                                  [this, weak = std::weak_ptr(router)]
                                  {
                                      m_routers.erase(weak.lock());
                                      clients.Set(m_routers.size());
                                  },
                                  m_task.Get()));
    }
};
