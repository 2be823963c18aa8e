#pragma once

/// What the listeners of all services have in common, for whoever makes them without knowing their clients.
class IPCServerListenerBase
{
public:
    virtual ~IPCServerListenerBase() = default;
};
