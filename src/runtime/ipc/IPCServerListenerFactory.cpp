#include "runtime/ipc/IPCServerListenerFactory.h"

#include <atomic>

namespace
{

std::atomic<IPCServerListenerFactoryIF*> s_factory{nullptr};

} // namespace

IPCServerListenerFactoryIF* IPCServerListenerFactory::detail::GetFactory()
{
    return s_factory;
}

void IPCServerListenerFactory::detail::SetFactory(IPCServerListenerFactoryIF* factory)
{
    s_factory = factory;
}
