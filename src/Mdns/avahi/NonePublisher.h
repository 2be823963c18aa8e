#pragma once

#include "Mdns/avahi/MdnsBackendIF.h"

#include <map>
#include <string>
#include <utility>

namespace MDNS
{

/// The backend for disabled publishing: accepts every call and never invokes a callback.
/// Task: that of its owner, MdnsService.
class NonePublisher final : public Publisher
{
public:
    void Stop() override
    {
        m_connected = false;
    }
    CallbackConnection PublishService(const Service& s, Callback<Service> published) override
    {
        m_callbacks[s.type] = std::move(published);
        m_services.insert_or_assign(s.type, s);
        m_published = true;
        return {};
    }
    bool UpdateService(const Service& s) override
    {
        m_updated = true;
        m_updatedService = s;
        return m_updateResult;
    }

private:
    bool m_connected = true;
    bool m_published = false;
    bool m_updated = false;
    bool m_updateResult = true;
    Service m_updatedService;                             ///< of the last UpdateService()
    std::map<std::string, Callback<Service>> m_callbacks; ///< by service type
    std::map<std::string, Service> m_services;            ///< by service type
};

} // namespace MDNS
