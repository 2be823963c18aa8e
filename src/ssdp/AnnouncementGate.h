#pragma once

#include "ssdp/InterfaceLink.h"
#include "ssdp/RefusalLog.h"

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>

namespace SonarixService
{

/// What counts in one SSDP message: views into its headers, nothing for a header that it lacks.
struct SsdpMessage
{
    enum class Kind
    {
        SEARCH, ///< M-SEARCH
        ANSWER, ///< the answer to one
        NOTIFY,
    };

    Kind kind = Kind::SEARCH;
    std::optional<std::string_view> target; ///< ST of an answer, NT of a NOTIFY
    std::optional<std::string_view> nts;
    std::optional<std::string_view> usn;
    std::optional<std::string_view> location;
    std::optional<std::string_view> furtherLocations; ///< AL: "<uri><uri>"
};

/// Decides which SSDP messages the resource browser gets to see. The browser itself believes everybody, caps
/// nothing, and asks for 2^64 bytes where a USN holds no colon.
/// Task: none; all calls on one thread. Owner: GSSDPHandler's main loop.
/// Judged are the messages that the browser would act on; all others pass, since it does nothing with them.
/// Never keeps more than the bounds below.
///
/// Design: the first address that announces a guid (the text between "uuid:" and the next colon) since Restart()
/// holds it until its byebye; others are not heard on it meanwhile. So neither a stranger's byebye nor two addresses
/// in turn make a product come and go. Restart() comes with each search and forgets everything: whoever was first by
/// deceit, or has filled the tables, keeps nobody out for longer, and a product with a new address is found then.
class AnnouncementGate final
{
public:
    enum Reason
    {
        OFF_LINK,         ///< the sender is no host of the interface's subnets
        TOO_MANY_SENDERS, ///< more senders than kMaxSenders
        TOO_FAST,         ///< more than kMaxMessagesPerSecond of one sender
        BAD_TARGET,       ///< a target that is no printable ASCII, or too long
        BAD_USN,          ///< no USN, or none of the form "uuid:<guid>"
        NOT_ANNOUNCED,    ///< a byebye for what nobody has announced: does nothing
        HELD_BY_ANOTHER,  ///< another address has announced it
        BAD_LOCATION,     ///< no LOCATION, or one that must not be fetched
        CHANGES_TOO_OFTEN,
        TOO_MANY_USNS, ///< more than kMaxUsnsOfSender or kMaxUsns
    };

    /// Begins a search for `target`, on the link as it is now; forgets who announced what. Before the first one nothing
    /// passes.
    void Restart(std::string_view target, InterfaceLink link);

    /// Whether the browser gets this message. `sender` is the numeric address that it came from, `nowMs` the
    /// monotonic time.
    [[nodiscard]] bool Admit(const SsdpMessage& message, std::string_view sender, std::int64_t nowMs);

    /// Messages refused for this reason since the construction.
    std::uint64_t Refused(Reason reason) const;

    /// A renderer repeats its few announcements and answers three M-SEARCHes within 4 s: some 10 a second at its worst.
    static constexpr int kMaxMessagesPerSecond = 50;
    /// One product is one or two renderers; a bridge that speaks for others has some more.
    static constexpr int kMaxUsnsOfSender = 16;
    /// About the number of products that a flat network carries; the browser takes 0.75 KiB for each.
    static constexpr std::size_t kMaxUsns = 1024;
    /// More cannot announce anything new, with kMaxUsns in all.
    static constexpr std::size_t kMaxSenders = kMaxUsns;
    /// "uuid:", 36 characters, "::" and a URN of at most 64 and 64 characters, with room to spare.
    static constexpr std::size_t kMaxUsnBytes = 256;
    /// A UUID has 36 characters; some products make up longer ones.
    static constexpr std::size_t kMaxGuidBytes = 128;
    /// The longest of our own targets has 44 characters.
    static constexpr std::size_t kMaxTargetBytes = 256;
    /// Further LOCATIONs of one message; nobody reads them, the browser keeps them.
    static constexpr std::size_t kMaxFurtherLocations = 4;
    /// Returns after a goodbye and new LOCATIONs of one guid from one search to the next, each of which may cost a
    /// fetch and some lines of the log: one that starts up does it once or twice.
    static constexpr int kMaxChangesOfProduct = 8;

private:
    enum class Act
    {
        NONE, ///< the browser does nothing with it
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
    struct Holder
    {
        IPv4 sender;
        bool hasLeft;          ///< has said byebye: another address may announce it
        std::size_t locations; ///< a hash of its last ones
        int changes;
    };

    Act ActOf(const SsdpMessage& message) const;
    std::optional<Reason> Judge(Act act, const SsdpMessage& message, IPv4 sender, std::int64_t nowMs);
    static bool IsWithinRate(Sender& sender, std::int64_t nowMs);
    bool IsFetchable(std::string_view location, IPv4 sender) const;
    bool AreLocationsFetchable(const SsdpMessage& message, IPv4 sender) const;
    bool TakeUsn(const std::string& usn, IPv4 sender);
    void Log(Reason reason, const SsdpMessage& message, std::string_view sender, IPv4 address, std::int64_t nowMs);

    bool m_isStarted = false;
    InterfaceLink m_link;
    bool m_matchesAll = false;
    std::string m_stem; ///< the target without its version
    /// The browser cuts a USN at its last colon once it has had a target with a version, so that all USNs of the form
    /// "uuid:<guid>" become one; then they have to be of one guid.
    bool m_cutsVersion = false;
    std::string m_bareGuid;

    std::unordered_map<IPv4, Sender> m_senders;
    std::unordered_map<std::string, IPv4> m_usns;      ///< all that the browser may have, and who announced them
    std::unordered_map<std::string, Holder> m_holders; ///< by guid
    RefusalLog m_refusals;
};

} // namespace SonarixService
