#pragma once

#include "Mdns/MdnsClient.h"

#include <string>
#include <utility>

namespace MDNS
{

/// Browsing switched off: takes every call, never calls back. On the mDNS task; owned by MdnsService.
class NoneBrowser final : public Browser
{
public:
    void Stop() override
    {
        m_connected = false;
    }
    CallbackConnection Browse(std::string, Callback<ServiceId> added, Callback<ServiceId> removed) override
    {
        m_browsing = true;
        m_added = std::move(added);
        m_removed = std::move(removed);
        return {};
    }
    CallbackConnection Resolve(ServiceId, Callback<std::string, Service> resolved) override
    {
        m_resolving = true;
        m_resolved = std::move(resolved);
        return {};
    }

private:
    bool m_connected = true;
    bool m_browsing = false;
    bool m_resolving = false;
    Callback<ServiceId> m_added;
    Callback<ServiceId> m_removed;
    Callback<std::string, Service> m_resolved;
};

} // namespace MDNS
