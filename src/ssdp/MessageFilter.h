#pragma once

#include "ssdp/InterfaceLink.h"

#include <cstddef>
#include <unordered_set>

// What GSSDP and GLib call their objects.
using GSSDPClient = struct _GSSDPClient;               // NOLINT(bugprone-reserved-identifier)
using SoupMessageHeaders = struct _SoupMessageHeaders; // NOLINT(bugprone-reserved-identifier)

namespace SonarixService
{

class AnnouncementGate;

/// Shows each message that a GSSDP client has parsed to the gate, before the resource browser sees it, and stops those
/// that are refused. Made before the client's browser, since handlers run in the order of their connection.
/// The client also keeps what each host calls itself (SERVER, USER-AGENT), of any length and for its whole life: long
/// ones are made to be forgotten here, and hosts are counted, so that the client's owner can make a new one in time.
/// Task: everything on the thread of the client's main context. Owner: GSSDPHandler; the client and the gate outlive
/// it.
class MessageFilter final
{
public:
    MessageFilter(GSSDPClient* client, AnnouncementGate& gate);
    ~MessageFilter();
    MessageFilter(const MessageFilter&) = delete;
    MessageFilter& operator=(const MessageFilter&) = delete;

    /// False where this GSSDP has no such signal: it is internal to the library. Then nothing is filtered.
    bool IsConnected() const
    {
        return m_handlerId != 0;
    }

    /// Hosts that the client remembers, no more than kMaxHosts.
    std::size_t Hosts() const
    {
        return m_hosts.size();
    }

    /// Four times the devices that are heard: a client that remembers so many has a forger of addresses on its link.
    static constexpr std::size_t kMaxHosts = 4096;
    /// "Linux/5.10 UPnP/1.0 Product/1.0" and its like have 30 to 60 characters.
    static constexpr std::size_t kMaxAgentBytes = 128;

private:
    void NoteAgent(const char* fromIp, SoupMessageHeaders* headers);
    static void OnMessageReceived(GSSDPClient* client, const char* fromIp, unsigned fromPort, int type,
                                  SoupMessageHeaders* headers, void* self);

    GSSDPClient* const m_client;
    AnnouncementGate& m_gate;
    unsigned m_signalId = 0;
    unsigned long m_handlerId = 0;
    std::unordered_set<IPv4> m_hosts;
};

} // namespace SonarixService
