// AvahiImpl: publishing.
#include "Mdns/avahi/AvahiCallbackAdapter.h"
#include "Mdns/avahi/AvahiConvert.h"
#include "Mdns/avahi/AvahiErrorLine.h"
#include "Mdns/avahi/AvahiImpl.h"
#include "Mdns/avahi/CleanupConnection.h"

#include <avahi-client/client.h>
#include <avahi-client/publish.h>
#include <avahi-common/alternative.h>
#include <avahi-common/error.h>
#include <avahi-common/malloc.h>

#include <memory>
#include <utility>

namespace MDNS
{

namespace
{

const DPrint s_log("mDNS");

struct AvahiFree
{
    void operator()(char* text) const
    {
        avahi_free(text);
    }
};
using AvahiString = std::unique_ptr<char, AvahiFree>;

} // namespace

CallbackConnection AvahiImpl::PublishService(const Service& s, Callback<Service> published)
{
    if (!IsUtf8(s))
    {
        AVAHI_ERROR_LINE(s_log, "avahi_entry_group_add_service_strlst", AVAHI_ERR_INVALID_SERVICE_NAME);
        return {};
    }
    // Shared with the callback of the group, which renames it after a collision. Protected by the poll's lock.
    const auto service = std::make_shared<Service>(s);

    const AvahiPollThread::Lock lock(m_pollThread, m_poll);
    auto [group, connection] = detail::AdapterOf<AvahiEntryGroupCallback>::Create(
        [self = shared_from_this(), service, published = std::move(published)](AvahiEntryGroup* sender,
                                                                               AvahiEntryGroupState state)
        { self->PublishResult(*service, published, sender, state); },
        [this](AvahiEntryGroupCallback callback, void* userData)
        { return avahi_entry_group_new(m_client, callback, userData); });
    if (group == nullptr)
    {
        AVAHI_ERROR_LINE(s_log, "avahi_service_browser_new", avahi_client_errno(m_client));
        return {};
    }
    if (!AddToGroup(*service, group))
    {
        const int result = FreeGroup(group);
        if (result < 0)
        {
            AVAHI_ERROR_LINE(s_log, "avahi_entry_group_free", result);
        }
        return {};
    }
    return MakeCleanupConnection(
        [self = shared_from_this(), service, handle = group]
        {
            const AvahiPollThread::Lock cleanupLock(self->m_pollThread, self->m_poll);
            const int result = self->FreeGroup(handle);
            if (result < 0)
            {
                AVAHI_ERROR_LINE(s_log, "avahi_entry_group_free", result);
            }
            else
            {
                DPRINTF(s_log, DPrint::LEVEL_INFO, "Service %s: freed", service->name.c_str());
            }
        },
        connection);
}

bool AvahiImpl::AddToGroup(Service& service, AvahiEntryGroup* group)
{
    m_pollThread.CheckLocked(__func__);
    if (group == nullptr)
    {
        return false;
    }
    int result = avahi_entry_group_reset(group);
    if (result < 0)
    {
        AVAHI_ERROR_LINE(s_log, "avahi_entry_group_reset", result);
        return false;
    }

    const std::uint16_t port = service.address.port();
    const StringList txt = StringListFromTxt(service.txt);
    AvahiString name(avahi_strdup(service.name.c_str()));
    if (!name)
    {
        AVAHI_ERROR_LINE(s_log, "avahi_strdup", AVAHI_ERR_NO_MEMORY);
        return false;
    }
    for (;;)
    {
        // A null host stands for the daemon's own host name.
        result = avahi_entry_group_add_service_strlst(group, service.interface, AvahiFromProtocol(service.protocol),
                                                      AvahiPublishFlags{}, name.get(), service.type.c_str(),
                                                      service.domain.c_str(), nullptr, port, txt.get());
        if (result != AVAHI_ERR_COLLISION)
        {
            break;
        }
        name.reset(avahi_alternative_service_name(name.get()));
        if (!name)
        {
            AVAHI_ERROR_LINE(s_log, "avahi_alternative_service_name", AVAHI_ERR_NO_MEMORY);
            return false;
        }
    }
    service.name = name.get();
    if (result < 0)
    {
        AVAHI_ERROR_LINE(s_log, "avahi_entry_group_add_service_strlst", result);
        return false;
    }

    result = avahi_entry_group_commit(group);
    if (result < 0)
    {
        AVAHI_ERROR_LINE(s_log, "avahi_entry_group_commit", result);
        return false;
    }
    m_groups[service.name] = group;
    return true;
}

int AvahiImpl::FreeGroup(AvahiEntryGroup* group)
{
    m_pollThread.CheckLocked(__func__);
    std::erase_if(m_groups, [group](const auto& entry) { return entry.second == group; });
    return avahi_entry_group_free(group);
}

void AvahiImpl::PublishResult(Service& service, const Callback<Service>& published, AvahiEntryGroup* group, int state)
{
    m_pollThread.InCallback(); // on the caller's task if called inside avahi_entry_group_new()
    switch (state)
    {
    case AVAHI_ENTRY_GROUP_UNCOMMITED:
        DPRINTF(s_log, DPrint::LEVEL_DEBUG, "Service %s: uncommitted", service.name.c_str());
        break;
    case AVAHI_ENTRY_GROUP_REGISTERING:
        DPRINTF(s_log, DPrint::LEVEL_DEBUG, "Service %s: registering", service.name.c_str());
        break;
    case AVAHI_ENTRY_GROUP_ESTABLISHED:
        DPRINTF(s_log, DPrint::LEVEL_INFO, "Service %s: established", service.name.c_str());
        published(service);
        break;
    case AVAHI_ENTRY_GROUP_COLLISION:
    {
        DPRINTF(s_log, DPrint::LEVEL_DEBUG, "Service %s: collision", service.name.c_str());
        const AvahiString name(avahi_alternative_service_name(service.name.c_str()));
        if (!name)
        {
            AVAHI_ERROR_LINE(s_log, "avahi_alternative_service_name", AVAHI_ERR_NO_MEMORY);
            return;
        }
        service.name = name.get();
        AddToGroup(service, group);
        break;
    }
    case AVAHI_ENTRY_GROUP_FAILURE:
        DPRINTF(s_log, DPrint::LEVEL_ERROR, "Service %s: PublishResult failed: %s at %s line %d", service.name.c_str(),
                avahi_strerror(avahi_client_errno(avahi_entry_group_get_client(group))), __FILE_NAME__, __LINE__);
        break;
    default:
        break;
    }
}

bool AvahiImpl::UpdateService(const Service& s)
{
    if (!IsUtf8(s))
    {
        AVAHI_ERROR_LINE(s_log, "avahi_entry_group_update_service_txt_strlst", AVAHI_ERR_INVALID_SERVICE_NAME);
        return false;
    }
    const AvahiPollThread::Lock lock(m_pollThread, m_poll);
    const auto group = m_groups.find(s.name);
    if (group == m_groups.end())
    {
        DPRINTF(s_log, DPrint::LEVEL_INFO, "Group NOT found!");
        return false;
    }
    const StringList txt = StringListFromTxt(s.txt);
    const AvahiString name(avahi_strdup(s.name.c_str()));
    if (!name)
    {
        AVAHI_ERROR_LINE(s_log, "avahi_strdup", AVAHI_ERR_NO_MEMORY);
        return false;
    }
    const int result = avahi_entry_group_update_service_txt_strlst(
        group->second, s.interface, AvahiFromProtocol(s.protocol), AvahiPublishFlags{}, name.get(), s.type.c_str(),
        s.domain.c_str(), txt.get());
    if (result < 0)
    {
        AVAHI_ERROR_LINE(s_log, "avahi_entry_group_update_service_txt_strlst", result);
        DPRINTF(s_log, DPrint::LEVEL_INFO, "Service Updated FAILED!!!!!!");
        return false;
    }
    return true;
}

} // namespace MDNS
