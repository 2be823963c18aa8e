#pragma once

#include "runtime/FactoryOverride.h"

#include <memory>
#include <string>

class IPCServerListenerBase;
class NotifyTargetTaskIF;

/// Creates the listeners of the local services instead of IPCServerListener<T>::Create().
class IPCServerListenerFactoryIF
{
public:
    /// The result must be the IPCServerListenerIF<T> that the caller casts it to.
    virtual std::shared_ptr<IPCServerListenerBase> CreateListener(const std::string& name,
                                                                  NotifyTargetTaskIF* task) = 0;
    virtual ~IPCServerListenerFactoryIF() = default;
};

namespace IPCServerListenerFactory::detail
{

inline constinit FactoryOverride<IPCServerListenerFactoryIF*> s_factoryOverride;

/// Returns the factory that replaces IPCServerListener<T>::Create(), null in the product. Any thread.
inline IPCServerListenerFactoryIF* GetFactory()
{
    return s_factoryOverride.Get();
}

} // namespace IPCServerListenerFactory::detail
