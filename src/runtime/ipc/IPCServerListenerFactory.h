#pragma once

#include <memory>
#include <string>

class IPCServerListenerBase;
class NotifyTargetTaskIF;

/// Makes listeners in the place of those that are served by sockets.
class IPCServerListenerFactoryIF
{
public:
    /// Must be the IPCServerListenerIF<T> that is asked for at the place of the call.
    virtual std::shared_ptr<IPCServerListenerBase> CreateListener(const std::string& name,
                                                                  NotifyTargetTaskIF* task) = 0;
    virtual ~IPCServerListenerFactoryIF() = default;
};

namespace IPCServerListenerFactory::detail
{

/// Null in the product. Any thread.
IPCServerListenerFactoryIF* GetFactory();
void SetFactory(IPCServerListenerFactoryIF* factory);

} // namespace IPCServerListenerFactory::detail
