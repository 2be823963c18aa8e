#include "ssdp/MessageInterceptor.h"

#include "runtime/MonotonicClock.h"
#include "ssdp/AnnouncementFilter.h"

#include <cassert>
#include <libgssdp/gssdp.h>
#include <libsoup/soup.h>

namespace SonarixService
{

namespace
{

const char* const kSignal = "message-received";

/// Values of GSSDP's internal enumeration of message types.
enum MessageType
{
    DISCOVERY_REQUEST = 0,
    DISCOVERY_RESPONSE = 1,
    ANNOUNCEMENT = 2,
};

/// Returns the id of the signal; 0 if the signal does not exist or has other parameters.
guint FindSignal()
{
    const guint id = g_signal_lookup(kSignal, GSSDP_TYPE_CLIENT);
    GSignalQuery query{};
    if (id != 0)
    {
        g_signal_query(id, &query);
    }
    const auto isType = [&query](guint index, GType type)
    { return (query.param_types[index] & ~G_SIGNAL_TYPE_STATIC_SCOPE) == type; };
    return query.n_params == 4 && isType(0, G_TYPE_STRING) && isType(1, G_TYPE_UINT) && isType(2, G_TYPE_INT) &&
                   isType(3, SOUP_TYPE_MESSAGE_HEADERS)
               ? id
               : 0;
}

/// Reads a header with the function that the browser uses, so that both see the same value.
std::optional<std::string_view> Header(SoupMessageHeaders* headers, const char* name)
{
    const char* const value = soup_message_headers_get_one(headers, name);
    return value != nullptr ? std::optional<std::string_view>(value) : std::nullopt;
}

SsdpMessage MessageFromHeaders(int type, SoupMessageHeaders* headers)
{
    SsdpMessage message;
    switch (type)
    {
    case DISCOVERY_RESPONSE:
        message.kind = SsdpMessage::Kind::RESPONSE;
        message.target = Header(headers, "ST");
        break;
    case ANNOUNCEMENT:
        message.kind = SsdpMessage::Kind::NOTIFY;
        message.target = Header(headers, "NT");
        message.nts = Header(headers, "NTS");
        break;
    case DISCOVERY_REQUEST:
    default:
        return message;
    }
    message.usn = Header(headers, "USN");
    message.location = Header(headers, "Location");
    message.furtherLocations = Header(headers, "AL");
    return message;
}

} // namespace

MessageInterceptor::MessageInterceptor(GSSDPClient* client, AnnouncementFilter& filter)
    : m_client(client)
    , m_filter(filter)
    , m_signalId(FindSignal())
{
    if (m_signalId != 0)
    {
        m_handlerId = g_signal_connect(client, kSignal, G_CALLBACK(&MessageInterceptor::OnMessageReceived), this);
    }
}

MessageInterceptor::~MessageInterceptor()
{
    if (m_handlerId != 0)
    {
        g_signal_handler_disconnect(m_client, m_handlerId);
    }
}

void MessageInterceptor::NoteAgent(const char* fromIp, SoupMessageHeaders* headers)
{
    const auto server = Header(headers, "Server");
    const auto agent = server ? server : Header(headers, "User-Agent");
    if (!agent)
    {
        return;
    }
    if (agent->size() > kMaxAgentBytes)
    {
        gssdp_client_add_cache_entry(m_client, fromIp, ""); // replaces the long one
    }
    if (m_hosts.size() < kMaxHosts)
    {
        m_hosts.insert(ParseIPv4(fromIp).value_or(0));
    }
}

void MessageInterceptor::OnMessageReceived(GSSDPClient* client, const char* fromIp, unsigned, int type,
                                           SoupMessageHeaders* headers, void* self)
{
    auto* const interceptor = static_cast<MessageInterceptor*>(self);
    assert(std::this_thread::get_id() == interceptor->m_thread);
    interceptor->NoteAgent(fromIp, headers);
    if (!interceptor->m_filter.Admit(MessageFromHeaders(type, headers), fromIp, MonotonicClock::NowMs()))
    {
        g_signal_stop_emission(client, interceptor->m_signalId, 0);
    }
}

} // namespace SonarixService
