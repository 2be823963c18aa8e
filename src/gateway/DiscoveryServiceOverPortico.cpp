#include "gateway/DiscoveryServiceOverPortico.h"

#include "runtime/DPrint.h"
#include "runtime/TaskCheck.h"
#include "schemas/Sonarix.pb.h"
#include <PorticoClient.h>

#include <string>
#include <utility>

namespace SonarixService
{

namespace
{

const DPrint s_log("DiscoveryServiceOverPortico");

const std::string kPath = "/sonarix/private/products";
constexpr double kVersion = 1.0;

} // namespace

std::shared_ptr<DiscoveryServiceOverPorticoIF> DiscoveryServiceOverPortico::Create(NotifyTargetTaskIF* task)
{
    if (const Factory factory = s_factoryOverride.Get())
    {
        return factory(task);
    }
    return std::make_shared<DiscoveryServiceOverPortico>(
        task, Portico::PorticoClient::Create("DiscoveryServiceOverPortico", "localhost", 8084, "tarsier", "", nullptr,
                                             std::nullopt, Portico::CommonClientCreationInfo()));
}

DiscoveryServiceOverPortico::DiscoveryServiceOverPortico(NotifyTargetTaskIF* task,
                                                         std::shared_ptr<PorticoClientIF> portico)
    : m_task(task)
    , m_portico(std::move(portico))
{
    // Dropping a CallbackConnection does not disconnect it: the endpoints end with the gateway connection.
    const auto update = m_liveness.OnTask(m_task, this, &DiscoveryServiceOverPortico::HandleProductUpdate);
    m_portico->RegisterPost<Sonarix::Product>(kPath, update, Portico::EndpointScope::PRIVATE, kVersion, "Unknown", 0);
    m_portico->RegisterPut<Sonarix::Product>(kPath, update, Portico::EndpointScope::PRIVATE, kVersion, "Unknown", 0);

    const auto removed = m_liveness.OnTask(m_task, this, &DiscoveryServiceOverPortico::HandleProductRemoved);
    m_portico->RegisterDelete<Sonarix::Product>(kPath, removed, Portico::EndpointScope::PRIVATE, kVersion, "Unknown",
                                                0);
}

DiscoveryServiceOverPortico::~DiscoveryServiceOverPortico() = default;

CallbackConnection DiscoveryServiceOverPortico::RegisterForProductUpdate(const Callback<Sonarix::Product>& callback)
{
    return m_productUpdateRegistry.Connect(callback);
}

CallbackConnection DiscoveryServiceOverPortico::RegisterForProductRemoved(const Callback<Sonarix::Product>& callback)
{
    return m_productRemovedRegistry.Connect(callback);
}

void DiscoveryServiceOverPortico::HandleProductUpdate(const Sonarix::Product& product, const Answer& response,
                                                      const Answer& /*error*/)
{
    TASK_CHECK(m_task);
    DPRINT(s_log, DPrint::LEVEL_INFO, "");
    response(SXCommon::SonarixVoid());
    m_productUpdateRegistry.Send(product, CallbackConnection());
}

void DiscoveryServiceOverPortico::HandleProductRemoved(const Sonarix::Product& product, const Answer& response,
                                                       const Answer& /*error*/)
{
    TASK_CHECK(m_task);
    DPRINT(s_log, DPrint::LEVEL_INFO, "");
    response(SXCommon::SonarixVoid());
    m_productRemovedRegistry.Send(product, CallbackConnection());
}

} // namespace SonarixService
