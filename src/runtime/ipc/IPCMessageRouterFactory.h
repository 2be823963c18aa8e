#pragma once

#include <memory>
#include <string>

class IPCMessageRouterIF;
class NotifyTargetTaskIF;

namespace Network
{
class ConnectorSocket;
}

class IPCMessageRouterFactory
{
public:
    /// `name` is its log channel. `socket` is used by a Start() that gives none; empty otherwise.
    static std::shared_ptr<IPCMessageRouterIF> CreateRouter(const std::string& name, NotifyTargetTaskIF* task,
                                                            std::shared_ptr<Network::ConnectorSocket> socket);
};
