#pragma once

#include "ssdp/InterfaceAddresses.h"
#include "ssdp/RefusalLog.h"

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>

namespace SonarixService
{

/// The headers of one SSDP message that the filter uses: views into the message, unset for a header that it lacks.
struct SsdpMessage
{
    enum class Kind
    {
        SEARCH,   ///< M-SEARCH
        RESPONSE, ///< to an M-SEARCH
        NOTIFY,
    };

    Kind kind = Kind::SEARCH;
    std::optional<std::string_view> target; ///< ST of a response, NT of a NOTIFY
    std::optional<std::string_view> nts;
    std::optional<std::string_view> usn;
    std::optional<std::string_view> location;
    std::optional<std::string_view> furtherLocations; ///< AL: "<uri><uri>"
};

/// Decides which SSDP messages reach GSSDPResourceBrowser. The browser validates nothing, has no limits, and aborts the
/// process on a USN without ':'. Messages that the browser ignores pass without a check.
/// Task: all calls on one thread. Owner: the main loop of GSSDPHandler.
///
/// Design: the first sender address that announces a guid (the text between "uuid:" and the next colon) after Restart()
/// owns it until its byebye. Messages about that guid from other addresses are refused, so neither a spoofed byebye nor
/// two alternating addresses make a product come and go. Each search calls Restart(), which clears the tables: a
/// spoofed announcement or a full table blocks other senders for at most one search period, and a product with a new
/// address is found then.
class AnnouncementFilter final
{
public:
    enum Reason
    {
        OFF_LINK,         ///< the sender has no address in the interface's subnets
        TOO_MANY_SENDERS, ///< over kMaxSenders
        TOO_FAST,         ///< over kMaxMessagesPerSecond
        BAD_TARGET,       ///< the target is not printable ASCII, or too long
        BAD_USN,          ///< the USN is missing, or not of the form "uuid:<guid>..."
        NOT_ANNOUNCED,    ///< a byebye or update without an announcement
        OTHER_OWNER,      ///< another address owns the guid
        BAD_LOCATION,     ///< the LOCATION is missing, or must not be fetched
        CHANGES_TOO_OFTEN,
        TOO_MANY_USNS, ///< over kMaxUsnsOfSender or kMaxUsns
    };

    /// Begins a search for `target`, "ssdp:all" or a URN with a version, and clears the tables. Before the first call
    /// Admit() refuses everything.
    void Restart(std::string_view target, InterfaceAddresses addresses);

    /// True if the browser may process `message`. `sender`: source address in text form; `nowMs`: monotonic time.
    [[nodiscard]] bool Admit(const SsdpMessage& message, std::string_view sender, std::int64_t nowMs);

    /// Returns the number of messages refused for this reason since construction.
    std::uint64_t Refused(Reason reason) const;

    /// Limit for one sender. A renderer repeats its announcements and responds to three M-SEARCHes within 4 s: at most
    /// about 10 messages a second.
    static constexpr int kMaxMessagesPerSecond = 50;
    /// Limit for the USNs of one sender. A product has one or two renderers; a bridge has a few more.
    static constexpr int kMaxUsnsOfSender = 16;
    /// Limit for all USNs: about the products on a large flat network. Measured: the browser uses 0.75 KiB for each.
    static constexpr std::size_t kMaxUsns = 1024;
    static constexpr std::size_t kMaxSenders = kMaxUsns;
    /// "uuid:", 36 characters, "::" and a URN with two parts of at most 64 characters (UPnP DA 1.1 section 1.2.2) fit.
    static constexpr std::size_t kMaxUsnBytes = 256;
    /// Limit for a guid. A UUID has 36 characters; some products use longer texts.
    static constexpr std::size_t kMaxGuidBytes = 128;
    /// Limit for ST and NT. The longest searched target has 44 characters.
    static constexpr std::size_t kMaxTargetBytes = 256;
    /// Limit for the LOCATIONs in one AL header. The service does not use them, but the browser stores them.
    static constexpr std::size_t kMaxFurtherLocations = 4;
    /// Limit for the changes of one guid between two searches: new LOCATIONs, and returns after a byebye. Each may cost
    /// a fetch and log lines. A starting product has one or two.
    static constexpr int kMaxChangesOfProduct = 8;

private:
    enum class Action
    {
        NONE, ///< the browser ignores the message
        BROKEN,
        ALIVE,
        BYEBYE,
        UPDATE,
    };
    struct Sender
    {
        std::int64_t windowStartMs = 0;
        int messagesInWindow = 0;
        int usns = 0;
    };
    struct Owner
    {
        IPv4 sender;
        bool hasLeft;          ///< after its byebye, another address may announce the guid
        std::size_t locations; ///< hash of the LOCATION and AL that were last admitted
        int changes;
    };

    Action ActionOf(const SsdpMessage& message) const;
    std::optional<Reason> Judge(Action action, const SsdpMessage& message, IPv4 sender, std::int64_t nowMs);
    static bool IsWithinRate(Sender& sender, std::int64_t nowMs);
    bool IsFetchable(std::string_view location, IPv4 sender) const;
    bool AreLocationsFetchable(const SsdpMessage& message, IPv4 sender) const;
    bool TakeUsn(const std::string& usn, IPv4 sender);
    void Log(Reason reason, const SsdpMessage& message, std::string_view sender, IPv4 address, std::int64_t nowMs);

    bool m_isStarted = false;
    InterfaceAddresses m_addresses;
    std::string m_stem; ///< the target without its version; empty for "ssdp:all"
    /// The only guid with a USN "uuid:<guid>". The browser removes a version by cutting a USN at its last colon, so it
    /// treats all such USNs as one.
    std::string m_bareGuid;

    std::unordered_map<IPv4, Sender> m_senders;
    std::unordered_map<std::string, IPv4> m_usns;    ///< all USNs that the browser may know, and their senders
    std::unordered_map<std::string, Owner> m_owners; ///< by guid
    RefusalLog m_refusals;
};

} // namespace SonarixService
