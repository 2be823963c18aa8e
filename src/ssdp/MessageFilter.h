#pragma once

// What GSSDP and GLib call their objects.
using GSSDPClient = struct _GSSDPClient;               // NOLINT(bugprone-reserved-identifier)
using SoupMessageHeaders = struct _SoupMessageHeaders; // NOLINT(bugprone-reserved-identifier)

namespace SonarixService
{

class AnnouncementGate;

/// Shows each message that a GSSDP client has parsed to the gate, before the resource browser sees it, and stops those
/// that are refused. Made before the client's browser, since handlers run in the order of their connection.
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

private:
    static void OnMessageReceived(GSSDPClient* client, const char* fromIp, unsigned fromPort, int type,
                                  SoupMessageHeaders* headers, void* self);

    GSSDPClient* const m_client;
    AnnouncementGate& m_gate;
    unsigned m_signalId = 0;
    unsigned long m_handlerId = 0;
};

} // namespace SonarixService
