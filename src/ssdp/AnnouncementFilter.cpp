#include "ssdp/AnnouncementFilter.h"

#include "base/EnumName.h"
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

/// Returns the guid in `usn`; empty if there is none that is acceptable.
std::string_view GuidFromUsn(std::string_view usn)
{
    if (usn.size() > AnnouncementFilter::kMaxUsnBytes || !usn.starts_with(kUuid) || !IsPrintable(usn))
    {
        return {};
    }
    usn.remove_prefix(kUuid.size());
    const std::string_view guid = usn.substr(0, usn.find(':'));
    return guid.size() <= AnnouncementFilter::kMaxGuidBytes ? guid : std::string_view();
}

std::size_t HashOfLocations(const SsdpMessage& message)
{
    std::string all(message.location.value_or(""));
    all += '\n';
    all += message.furtherLocations.value_or("");
    return std::hash<std::string>()(all);
}

const char* Text(AnnouncementFilter::Reason reason)
{
    static constexpr const char* kNames[] = {"the sender is not on the interface's subnets",
                                             "too many senders",
                                             "too many messages in a second",
                                             "the target is not text",
                                             "the USN is missing or invalid",
                                             "it has not been announced",
                                             "another address has announced it",
                                             "the LOCATION is missing or must not be fetched",
                                             "it returns or changes its LOCATION too often",
                                             "too many USNs"};
    return EnumName(kNames, reason);
}

} // namespace

void AnnouncementFilter::Restart(std::string_view target, InterfaceAddresses addresses)
{
    m_isStarted = true;
    m_addresses = std::move(addresses);
    // The browser accepts its target at any position of ST or NT, with any number as the version.
    m_stem = target == "ssdp:all" ? "" : target.substr(0, target.rfind(':') + 1);
    m_bareGuid.clear();
    m_senders.clear();
    m_usns.clear();
    m_owners.clear();
}

bool AnnouncementFilter::Admit(const SsdpMessage& message, std::string_view sender, std::int64_t nowMs)
{
    if (!m_isStarted)
    {
        return false;
    }
    const Action action = ActionOf(message);
    if (action == Action::NONE)
    {
        return true;
    }
    const IPv4 address = ParseIPv4(sender).value_or(0);
    const std::optional<Reason> reason = Judge(action, message, address, nowMs);
    if (reason)
    {
        m_refusals.Add(Text(*reason));
        Log(*reason, message, sender, address, nowMs);
    }
    return !reason;
}

std::uint64_t AnnouncementFilter::Refused(Reason reason) const
{
    return m_refusals.Count(Text(reason));
}

AnnouncementFilter::Action AnnouncementFilter::ActionOf(const SsdpMessage& message) const
{
    if (message.kind == SsdpMessage::Kind::SEARCH || !message.target)
    {
        return Action::NONE;
    }
    if (message.target->size() > kMaxTargetBytes || !IsPrintable(*message.target))
    {
        return Action::BROKEN; // the browser passes the target unchecked to a GRegex, which requires UTF-8
    }
    if (message.target->find(m_stem) == std::string_view::npos)
    {
        return Action::NONE;
    }
    if (message.kind == SsdpMessage::Kind::RESPONSE)
    {
        return Action::ALIVE;
    }
    const std::string_view nts = message.nts.value_or("");
    return nts.starts_with("ssdp:alive")    ? Action::ALIVE
           : nts.starts_with("ssdp:byebye") ? Action::BYEBYE
           : nts.starts_with("ssdp:update") ? Action::UPDATE
                                            : Action::NONE;
}

std::optional<AnnouncementFilter::Reason> AnnouncementFilter::Judge(Action action, const SsdpMessage& message,
                                                                    IPv4 sender, std::int64_t nowMs)
{
    if (!m_addresses.HasHost(sender))
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
    if (action == Action::BROKEN)
    {
        return BAD_TARGET;
    }
    const std::string usn(message.usn.value_or("").substr(0, kMaxUsnBytes + 1));
    const std::string guid(GuidFromUsn(usn));
    if (guid.empty())
    {
        return BAD_USN;
    }

    const auto owner = m_owners.find(guid);
    const bool isKnown = owner != m_owners.end();
    if (isKnown && owner->second.sender != sender && !(owner->second.hasLeft && action == Action::ALIVE))
    {
        return OTHER_OWNER;
    }
    const bool isBare = usn.size() == kUuid.size() + guid.size();
    if (isBare && m_bareGuid != guid && !(action == Action::ALIVE && m_bareGuid.empty()))
    {
        return OTHER_OWNER;
    }
    if (action != Action::ALIVE)
    {
        if (!isKnown)
        {
            return NOT_ANNOUNCED;
        }
        owner->second.hasLeft = owner->second.hasLeft || action == Action::BYEBYE;
        return std::nullopt;
    }

    if (!AreLocationsFetchable(message, sender))
    {
        return BAD_LOCATION;
    }
    const std::size_t locations = HashOfLocations(message);
    const bool isChange = isKnown && (owner->second.hasLeft || owner->second.locations != locations);
    const int changes = (isKnown ? owner->second.changes : 0) + (isChange ? 1 : 0);
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
    m_owners[guid] = {sender, false, locations, changes};
    return std::nullopt;
}

bool AnnouncementFilter::IsWithinRate(Sender& sender, std::int64_t nowMs)
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

bool AnnouncementFilter::IsFetchable(std::string_view location, IPv4 sender) const
{
    const std::optional<IPv4> host = HostOfLocation(location);
    return host && !IsLoopback(*host) && m_addresses.HasHost(*host) &&
           (!m_addresses.IsOwn(*host) || m_addresses.IsOwn(sender));
}

bool AnnouncementFilter::AreLocationsFetchable(const SsdpMessage& message, IPv4 sender) const
{
    if (message.location && !IsFetchable(*message.location, sender))
    {
        return false;
    }
    bool hasAny = message.location.has_value();
    if (message.furtherLocations)
    {
        // Splits the list as the browser does, so that the browser stores no unchecked LOCATION.
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

bool AnnouncementFilter::TakeUsn(const std::string& usn, IPv4 sender)
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
        --m_senders[known->second].usns; // the previous owner has sent its byebye
        known->second = sender;
    }
    else
    {
        m_usns.emplace(usn, sender);
    }
    ++m_senders[sender].usns;
    return true;
}

void AnnouncementFilter::Log(Reason reason, const SsdpMessage& message, std::string_view sender, IPv4 address,
                             std::int64_t nowMs)
{
    // Level 4 for NOT_ANNOUNCED: many products send a byebye before their first announcement.
    const DPrint::Level level = reason == NOT_ANNOUNCED ? DPrint::LEVEL_DEBUG : DPrint::LEVEL_WARNING;
    if (!s_log.IsLog(level) || !m_refusals.MayLog(address, Text(reason), nowMs))
    {
        return;
    }
    DPRINT(s_log, level,
           sender << " is ignored, " << Text(reason) << " (" << Refused(reason) << " times so far): USN='"
                  << message.usn.value_or("").substr(0, kMaxLoggedBytes) << "', LOCATION='"
                  << message.location.value_or("").substr(0, kMaxLoggedBytes) << "'");
}

} // namespace SonarixService
