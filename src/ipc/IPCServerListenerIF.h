#pragma once

#include "runtime/ipc/IPCServerListenerBase.h"

#include <functional>
#include <memory>
#include <string>

namespace Network
{
class Address;
class ConnectorSocket;
} // namespace Network

/// Makes an object of type T for each connection of one local service.
template <class T>
class IPCServerListenerIF : public IPCServerListenerBase
{
public:
    using NewClientCallback = std::function<void(const std::shared_ptr<T>&)>;
    using HandlerFactory =
        std::function<std::shared_ptr<T>(const std::string& name, std::shared_ptr<Network::ConnectorSocket> socket)>;

    /// Where the address cannot be bound, nobody is ever served; it is not tried again.
    virtual void Start(const Network::Address& address, const NewClientCallback& newClientCallback,
                       const HandlerFactory& handlerFactory) = 0;
    virtual void Stop() = 0;
};
