#pragma once

#include "ssdp/InterfaceAddresses.h"

#include <cstddef>
#include <thread>
#include <unordered_set>

// Types of GSSDP and libsoup, declared as in their headers.
using GSSDPClient = struct _GSSDPClient;               // NOLINT(bugprone-reserved-identifier)
using SoupMessageHeaders = struct _SoupMessageHeaders; // NOLINT(bugprone-reserved-identifier)

namespace SonarixService
{

class AnnouncementFilter;

/// Passes each message that a GSSDP client has parsed to the filter, before the resource browser gets it, and stops the
/// signal if the filter refuses the message. Must be created before the client's browser, because handlers of a signal
/// run in the order of their connection. The client also caches SERVER or USER-AGENT of each host, of any length and
/// forever. This class replaces long ones by an empty text and counts the hosts, so that the owner can replace the
/// client. Task: everything runs on the thread that creates it, which runs the client's main context (checked in debug
/// builds). Owner: GSSDPHandler. The client and the filter outlive it.
class MessageInterceptor final
{
public:
    MessageInterceptor(GSSDPClient* client, AnnouncementFilter& filter);
    ~MessageInterceptor();
    MessageInterceptor(const MessageInterceptor&) = delete;
    MessageInterceptor& operator=(const MessageInterceptor&) = delete;

    /// False if this version of GSSDP lacks the signal, which is internal to the library. Then nothing is filtered.
    bool IsConnected() const
    {
        return m_handlerId != 0;
    }

    /// Hosts in the client's cache, at most kMaxHosts.
    std::size_t Hosts() const
    {
        return m_hosts.size();
    }

    /// Four times AnnouncementFilter::kMaxSenders. So many hosts mean forged addresses.
    static constexpr std::size_t kMaxHosts = 4096;
    /// Typical texts, for example "Linux/5.10 UPnP/1.0 Product/1.0", have 30 to 60 characters.
    static constexpr std::size_t kMaxAgentBytes = 128;

private:
    void NoteAgent(const char* fromIp, SoupMessageHeaders* headers);
    static void OnMessageReceived(GSSDPClient* client, const char* fromIp, unsigned fromPort, int type,
                                  SoupMessageHeaders* headers, void* self);

    GSSDPClient* const m_client;
    AnnouncementFilter& m_filter;
    unsigned m_signalId = 0;
    unsigned long m_handlerId = 0;
    std::unordered_set<IPv4> m_hosts;
    [[maybe_unused]] const std::thread::id m_thread = std::this_thread::get_id();
};

} // namespace SonarixService
