#pragma once

#include "interfaces/DiscoveryServiceOverPorticoIF.h"
#include "runtime/CallbackRegistry.h"
#include "runtime/FactoryOverride.h"
#include "runtime/Liveness.h"

#include <memory>

class NotifyTargetTaskIF;
class PorticoClientIF;

namespace google::protobuf
{
class Message;
}

namespace SonarixService
{

/// Serves "/sonarix/private/products" on its own gateway connection and turns each request into a signal.
/// Task: handlers and signals on the given task (checked in debug builds). Owner: the aggregator.
/// Does not know the table and rejects no product: it acknowledges a request before the signal.
class DiscoveryServiceOverPortico final : public DiscoveryServiceOverPorticoIF
{
public:
    using Factory = std::shared_ptr<DiscoveryServiceOverPorticoIF> (*)(NotifyTargetTaskIF* task);

    static std::shared_ptr<DiscoveryServiceOverPorticoIF> Create(NotifyTargetTaskIF* task);
    static inline FactoryOverride<Factory> s_factoryOverride;

    DiscoveryServiceOverPortico(NotifyTargetTaskIF* task, std::shared_ptr<PorticoClientIF> portico);
    ~DiscoveryServiceOverPortico() override;

    CallbackConnection RegisterForProductUpdate(const Callback<Sonarix::Product>& callback) override;
    CallbackConnection RegisterForProductRemoved(const Callback<Sonarix::Product>& callback) override;

private:
    using Answer = Callback<google::protobuf::Message>;

    void HandleProductUpdate(const Sonarix::Product& product, const Answer& response, const Answer& error);
    void HandleProductRemoved(const Sonarix::Product& product, const Answer& response, const Answer& error);

    NotifyTargetTaskIF* m_task;
    std::shared_ptr<PorticoClientIF> m_portico;
    CallbackRegistry<Sonarix::Product> m_productUpdateRegistry;
    CallbackRegistry<Sonarix::Product> m_productRemovedRegistry;
    Liveness m_liveness;
};

} // namespace SonarixService
