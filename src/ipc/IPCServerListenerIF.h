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

/// Creates a client handler of type T for each connection of one local service.
template <class T>
class IPCServerListenerIF : public IPCServerListenerBase
{
public:
    using NewClientCallback = std::function<void(const std::shared_ptr<T>&)>;
    using HandlerFactory =
        std::function<std::shared_ptr<T>(const std::string& name, std::shared_ptr<Network::ConnectorSocket> socket)>;

    /// If the address cannot be bound, there is no second attempt and no client is served.
    virtual void Start(const Network::Address& address, const NewClientCallback& newClientCallback,
                       const HandlerFactory& handlerFactory) = 0;
    virtual void Stop() = 0;
};
