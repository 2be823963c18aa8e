#pragma once

#include "Mdns/avahi/MdnsBackendIF.h"

#include <string>
#include <utility>

namespace MDNS
{

/// The backend for disabled browsing: accepts every call and never invokes a callback.
/// Task: that of its owner, MdnsService.
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
