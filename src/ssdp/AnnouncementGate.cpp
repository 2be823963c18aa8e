#include "ssdp/AnnouncementGate.h"

#include "runtime/DPrint.h"
#include "ssdp/Location.h"

#include <algorithm>
#include <functional>
#include <utility>

namespace SonarixService
{

namespace
{

const DPrint s_log("GSSDPHandler");

constexpr std::string_view kUuid = "uuid:";
constexpr std::size_t kMaxLoggedBytes = 160; ///< of a text from the network

bool IsPrintable(std::string_view text)
{
    return std::all_of(text.begin(), text.end(), [](char c) { return c >= ' ' && c <= '~'; });
}

/// The guid of a USN, empty where it has none that is fit to be one.
std::string_view GuidOf(std::string_view usn)
{
    if (usn.size() > AnnouncementGate::kMaxUsnBytes || !usn.starts_with(kUuid) || !IsPrintable(usn))
    {
        return {};
    }
    usn.remove_prefix(kUuid.size());
    const std::string_view guid = usn.substr(0, usn.find(':'));
    return guid.size() <= AnnouncementGate::kMaxGuidBytes ? guid : std::string_view();
}

std::size_t HashOfLocations(const SsdpMessage& message)
{
    std::string all(message.location.value_or(""));
    all += '\n';
    all += message.furtherLocations.value_or("");
    return std::hash<std::string>()(all);
}

const char* Text(AnnouncementGate::Reason reason)
{
    switch (reason)
    {
    case AnnouncementGate::OFF_LINK:
        return "the sender is not on the interface's link";
    case AnnouncementGate::TOO_MANY_SENDERS:
        return "too many senders";
    case AnnouncementGate::TOO_FAST:
        return "too many messages in a second";
    case AnnouncementGate::BAD_TARGET:
        return "the target is no text";
    case AnnouncementGate::BAD_USN:
        return "the USN is missing or is none";
    case AnnouncementGate::NOT_ANNOUNCED:
        return "nobody has announced it";
    case AnnouncementGate::HELD_BY_ANOTHER:
        return "another address has announced it";
    case AnnouncementGate::BAD_LOCATION:
        return "the LOCATION is missing or must not be fetched";
    case AnnouncementGate::CHANGES_TOO_OFTEN:
        return "it comes back or moves too often";
    case AnnouncementGate::TOO_MANY_USNS:
        return "too many USNs";
    default:
        return "(?)";
    }
}

} // namespace

void AnnouncementGate::Restart(std::string_view target, InterfaceLink link)
{
    m_isStarted = true;
    m_link = std::move(link);

    // What the browser makes of its target: an expression that is searched for anywhere, with any number in the place
    // of the version.
    const std::size_t colon = target.rfind(':');
    const bool hasVersion = colon != std::string_view::npos && colon + 1 < target.size() && target[colon + 1] >= '0' &&
                            target[colon + 1] <= '9' && !(target.starts_with(kUuid) && colon == kUuid.size() - 1);
    m_cutsVersion = m_cutsVersion || hasVersion;
    m_stem = hasVersion ? target.substr(0, colon + 1) : target;
    m_matchesAll = target == "ssdp:all" || m_stem.find_first_of("\\^$.|?*+()[]{}") != std::string::npos;

    m_bareGuid.clear();
    m_senders.clear();
    m_usns.clear();
    m_holders.clear();
}

bool AnnouncementGate::Admit(const SsdpMessage& message, std::string_view sender, std::int64_t nowMs)
{
    if (!m_isStarted)
    {
        return false;
    }
    const Act act = ActOf(message);
    if (act == Act::NONE)
    {
        return true;
    }
    const IPv4 address = ParseIPv4(sender).value_or(0);
    const std::optional<Reason> reason = Judge(act, message, address, nowMs);
    if (reason)
    {
        m_refusals.Add(Text(*reason));
        Log(*reason, message, sender, address, nowMs);
    }
    return !reason;
}

std::uint64_t AnnouncementGate::Refused(Reason reason) const
{
    return m_refusals.Count(Text(reason));
}

AnnouncementGate::Act AnnouncementGate::ActOf(const SsdpMessage& message) const
{
    if (message.kind == SsdpMessage::Kind::SEARCH || !message.target)
    {
        return Act::NONE;
    }
    if (message.target->size() > kMaxTargetBytes || !IsPrintable(*message.target))
    {
        return Act::BROKEN; // the browser's expression takes it for valid UTF-8, unseen
    }
    if (!m_matchesAll && message.target->find(m_stem) == std::string_view::npos)
    {
        return Act::NONE;
    }
    if (message.kind == SsdpMessage::Kind::ANSWER)
    {
        return Act::ALIVE;
    }
    const std::string_view nts = message.nts.value_or("");
    return nts.starts_with("ssdp:alive")    ? Act::ALIVE
           : nts.starts_with("ssdp:byebye") ? Act::BYEBYE
           : nts.starts_with("ssdp:update") ? Act::UPDATE
                                            : Act::NONE;
}

std::optional<AnnouncementGate::Reason> AnnouncementGate::Judge(Act act, const SsdpMessage& message, IPv4 sender,
                                                                std::int64_t nowMs)
{
    if (!m_link.HasHost(sender))
    {
        return OFF_LINK;
    }
    if (m_senders.size() >= kMaxSenders && !m_senders.contains(sender))
    {
        return TOO_MANY_SENDERS;
    }
    if (!IsWithinRate(m_senders[sender], nowMs))
    {
        return TOO_FAST;
    }
    if (act == Act::BROKEN)
    {
        return BAD_TARGET;
    }
    const std::string usn(message.usn.value_or("").substr(0, kMaxUsnBytes + 1));
    const std::string guid(GuidOf(usn));
    if (guid.empty())
    {
        return BAD_USN;
    }

    const auto holder = m_holders.find(guid);
    const bool isKnown = holder != m_holders.end();
    if (isKnown && holder->second.sender != sender && !(holder->second.hasLeft && act == Act::ALIVE))
    {
        return HELD_BY_ANOTHER;
    }
    const bool isBare = m_cutsVersion && usn.size() == kUuid.size() + guid.size();
    if (isBare && m_bareGuid != guid && !(act == Act::ALIVE && m_bareGuid.empty()))
    {
        return HELD_BY_ANOTHER;
    }
    if (act != Act::ALIVE)
    {
        if (!isKnown)
        {
            return NOT_ANNOUNCED;
        }
        holder->second.hasLeft = holder->second.hasLeft || act == Act::BYEBYE;
        return std::nullopt;
    }

    if (!AreLocationsFetchable(message, sender))
    {
        return BAD_LOCATION;
    }
    const std::size_t locations = HashOfLocations(message);
    const bool isChange = isKnown && (holder->second.hasLeft || holder->second.locations != locations);
    const int changes = (isKnown ? holder->second.changes : 0) + (isChange ? 1 : 0);
    if (isChange && changes > kMaxChangesOfProduct)
    {
        return CHANGES_TOO_OFTEN;
    }
    if (!TakeUsn(usn, sender))
    {
        return TOO_MANY_USNS;
    }
    if (isBare)
    {
        m_bareGuid = guid;
    }
    m_holders[guid] = {sender, false, locations, changes};
    return std::nullopt;
}

bool AnnouncementGate::IsWithinRate(Sender& sender, std::int64_t nowMs)
{
    if (sender.messagesInWindow == 0 || nowMs - sender.windowStartMs >= 1000)
    {
        sender.windowStartMs = nowMs;
        sender.messagesInWindow = 0;
    }
    if (sender.messagesInWindow >= kMaxMessagesPerSecond)
    {
        return false;
    }
    ++sender.messagesInWindow;
    return true;
}

bool AnnouncementGate::IsFetchable(std::string_view location, IPv4 sender) const
{
    const std::optional<IPv4> host = HostOfLocation(location);
    return host && !IsLoopback(*host) && m_link.HasHost(*host) && (!m_link.IsOwn(*host) || m_link.IsOwn(sender));
}

bool AnnouncementGate::AreLocationsFetchable(const SsdpMessage& message, IPv4 sender) const
{
    if (message.location && !IsFetchable(*message.location, sender))
    {
        return false;
    }
    bool hasAny = message.location.has_value();
    if (message.furtherLocations)
    {
        // Each one as the browser cuts them out, so that it keeps none that was not looked at.
        const std::string_view list = *message.furtherLocations;
        std::size_t count = 0;
        for (std::size_t start = list.find('<'); start != std::string_view::npos; start = list.find('<', start))
        {
            ++start;
            const std::size_t end = list.find('>', start);
            if (end == std::string_view::npos)
            {
                break;
            }
            if (++count > kMaxFurtherLocations || !IsFetchable(list.substr(start, end - start), sender))
            {
                return false;
            }
            hasAny = true;
            start = end;
        }
    }
    return hasAny;
}

bool AnnouncementGate::TakeUsn(const std::string& usn, IPv4 sender)
{
    const auto known = m_usns.find(usn);
    if (known != m_usns.end() && known->second == sender)
    {
        return true;
    }
    if (m_senders[sender].usns >= kMaxUsnsOfSender || (known == m_usns.end() && m_usns.size() >= kMaxUsns))
    {
        return false;
    }
    if (known != m_usns.end())
    {
        --m_senders[known->second].usns; // it has said byebye
        known->second = sender;
    }
    else
    {
        m_usns.emplace(usn, sender);
    }
    ++m_senders[sender].usns;
    return true;
}

void AnnouncementGate::Log(Reason reason, const SsdpMessage& message, std::string_view sender, IPv4 address,
                           std::int64_t nowMs)
{
    // Many products say byebye before their first announcement.
    const DPrint::Level level = reason == NOT_ANNOUNCED ? DPrint::LEVEL_DEBUG : DPrint::LEVEL_WARNING;
    if (!s_log.IsLog(level) || !m_refusals.MayLog(address, Text(reason), nowMs))
    {
        return;
    }
    DPRINT(s_log, level,
           sender << " is not heard, " << Text(reason) << " (" << Refused(reason) << " times so far): USN='"
                  << message.usn.value_or("").substr(0, kMaxLoggedBytes) << "', LOCATION='"
                  << message.location.value_or("").substr(0, kMaxLoggedBytes) << "'");
}

} // namespace SonarixService
