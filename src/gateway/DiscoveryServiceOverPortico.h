#pragma once

#include "gateway/BoundHandler.h"
#include "interfaces/DiscoveryServiceOverPorticoIF.h"
#include "runtime/CallbackRegistry.h"

#include <memory>

class NotifyTargetTaskIF;
class PorticoClientIF;

namespace google::protobuf
{
class Message;
}

namespace SonarixService
{

/// Serves "/sonarix/private/products" over a gateway connection of its own and turns each request into a signal.
/// Task: handlers and signals on the task given. Owner: the aggregator. Never looks at the table and never
/// rejects a product: a request is acknowledged before anybody has acted on it.
class DiscoveryServiceOverPortico final : public DiscoveryServiceOverPorticoIF
{
public:
    using Factory = std::shared_ptr<DiscoveryServiceOverPorticoIF> (*)(NotifyTargetTaskIF* task);

    static std::shared_ptr<DiscoveryServiceOverPorticoIF> Create(NotifyTargetTaskIF* task);
    static void SetFactoryOverride(Factory factory); ///< null in the product

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
    LivenessToken m_alive;
};

} // namespace SonarixService
