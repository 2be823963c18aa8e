#pragma once

/// The common base of the listeners of all services, so that a factory can create them without knowing the type of
/// their client handlers.
class IPCServerListenerBase
{
public:
    virtual ~IPCServerListenerBase() = default;
};
