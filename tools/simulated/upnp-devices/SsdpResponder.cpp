#include "tools/simulated/upnp-devices/SsdpResponder.h"

#include "runtime/MonotonicClock.h"
#include "tools/simulated/Schedule.h"
#include "tools/simulated/upnp-devices/Description.h"

#include <algorithm>
#include <cctype>
#include <charconv>
#include <functional>
#include <sstream>
#include <utility>

namespace
{

/// 239.255.255.250:1900, only M-SEARCH.
constexpr MulticastSocket::Settings kSsdp{{0xEFFFFFFA, 1900}, 4, {0, 0xFF, 'M'}};
constexpr const char* kType = "urn:schemas-upnp-org:device:MediaRenderer:1";
constexpr const char* kRoot = "upnp:rootdevice";
constexpr const char* kServer = "Linux/5.10 UPnP/1.0 Sonarix-Devices/1.0";
constexpr unsigned int kMaxMxSec = 5; // a larger MX is reduced to this (UPnP DA 1.1 section 1.3.3)
constexpr unsigned int kAnnouncePauseMs = 1000;
constexpr std::int64_t kFlapMs = 10;
constexpr unsigned int kFullPauseMs = 5; // before the next attempt if the send buffer was full

std::string Trimmed(const std::string& text)
{
    const std::size_t begin = text.find_first_not_of(" \t");
    const std::size_t end = text.find_last_not_of(" \t\r");
    return begin == std::string::npos ? std::string() : text.substr(begin, end + 1 - begin);
}

std::string Lowered(std::string text)
{
    std::transform(text.begin(), text.end(), text.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    return text;
}

std::string Usn(const Identity& identity, const std::string& target)
{
    const std::string uuid = "uuid:" + identity.guid;
    return target == uuid ? uuid : uuid + "::" + target;
}

} // namespace

SsdpResponder::SsdpResponder(NotifyTargetTaskIF* task, Schedule& schedule, Settings settings)
    : m_schedule(schedule)
    , m_settings(std::move(settings))
    , m_random(m_settings.seed)
    , m_socket(task, kSsdp,
               [this](const std::uint8_t* bytes, std::size_t size, const Endpoint& sender)
               { HandleDatagram(bytes, size, sender); })
{
}

bool SsdpResponder::Open(std::string& error)
{
    return m_socket.Open(m_settings.interface, error);
}

void SsdpResponder::Add(Kind kind, const Identity& identity, std::uint16_t port)
{
    const std::string location =
        kind == Kind::NO_LOCATION ? std::string() : "LOCATION: " + LocationOf(kind, identity, port) + "\r\n";
    m_devices.push_back({kind, identity, location});
}

void SsdpResponder::Announce(std::size_t device, unsigned int afterMs)
{
    m_devices[device].isSilent = false;
    PlanAnnouncement(device, afterMs, 0);
    if (m_devices[device].kind == Kind::FLAPPING)
    {
        Flap(device, MonotonicClock::NowMs() + kFlapMs);
    }
}

void SsdpResponder::Silence(std::size_t device)
{
    m_devices[device].isSilent = true;
    ++m_devices[device].silences;
}

void SsdpResponder::SayGoodbye(std::size_t device)
{
    for (const std::string& target : Targets(m_devices[device]))
    {
        Notify(m_devices[device], target, "ssdp:byebye");
    }
    Silence(device);
}

bool SsdpResponder::Parse(const std::string& text, Search& search)
{
    std::istringstream lines(text);
    std::string line;
    bool isDiscover = false;
    std::getline(lines, line);
    if (line.rfind("M-SEARCH * HTTP/1.", 0) != 0)
    {
        return false;
    }
    while (std::getline(lines, line))
    {
        const std::size_t colon = line.find(':');
        if (colon == std::string::npos)
        {
            continue;
        }
        const std::string name = Lowered(Trimmed(line.substr(0, colon)));
        const std::string value = Trimmed(line.substr(colon + 1));
        if (name == "st")
        {
            search.target = value;
        }
        else if (name == "mx")
        {
            std::from_chars(value.data(), value.data() + value.size(), search.mxSec);
        }
        else if (name == "man")
        {
            isDiscover = value == "\"ssdp:discover\"";
        }
    }
    return isDiscover && search.mxSec > 0; // a search without MX is invalid (UPnP DA 1.1 section 1.3.2)
}

void SsdpResponder::HandleDatagram(const std::uint8_t* bytes, std::size_t size, const Endpoint& sender)
{
    Search search;
    if (!Parse(std::string(bytes, bytes + size), search))
    {
        return;
    }
    ++m_counts.searches;
    for (std::size_t number = 0; number < m_devices.size(); ++number)
    {
        const Device& device = m_devices[number];
        if (device.isSilent)
        {
            continue;
        }
        for (const std::string& target : Targets(device))
        {
            if (search.target == "ssdp:all" || search.target == target)
            {
                PlanAnswer(number, target, search, sender);
            }
        }
    }
}

std::vector<std::string> SsdpResponder::Targets(const Device& device) const
{
    return {kRoot, "uuid:" + device.identity.guid, kType};
}

void SsdpResponder::PlanAnswer(std::size_t device, const std::string& target, const Search& search,
                               const Endpoint& sender)
{
    const unsigned int mostMs = std::min(search.mxSec, kMaxMxSec) * 1000;
    const bool isHasty = m_devices[device].kind == Kind::HASTY;
    RunUnlessSilenced(device, isHasty ? 0 : static_cast<unsigned int>(m_random.Below(mostMs)),
                      [this, target, sender](const Device& answering)
                      {
                          ++m_counts.answers;
                          Send(sender,
                               "HTTP/1.1 200 OK\r\nCACHE-CONTROL: max-age=" + std::to_string(m_settings.maxAgeSec) +
                                   "\r\nEXT:\r\n" + answering.location + "SERVER: " + kServer + "\r\nST: " + target +
                                   "\r\nUSN: " + Usn(answering.identity, target) + "\r\n\r\n",
                               answering.identity.ipv4);
                      });
}

void SsdpResponder::PlanAnnouncement(std::size_t device, unsigned int afterMs, unsigned int number)
{
    RunUnlessSilenced(device, afterMs,
                      [this, device, number](const Device& announced)
                      {
                          for (const std::string& target : Targets(announced))
                          {
                              Notify(announced, target, "ssdp:alive");
                          }
                          const unsigned int thirdMs = m_settings.maxAgeSec * 1000 / 3;
                          const auto nextMs = number == 0
                                                  ? kAnnouncePauseMs
                                                  : thirdMs + static_cast<unsigned int>(m_random.Below(thirdMs / 2));
                          PlanAnnouncement(device, nextMs, number + 1);
                      });
}

void SsdpResponder::Flap(std::size_t device, std::int64_t dueMs)
{
    const std::int64_t afterMs = std::max<std::int64_t>(0, dueMs - MonotonicClock::NowMs());
    RunUnlessSilenced(device, static_cast<unsigned int>(afterMs),
                      [this, device, dueMs](const Device& flapping)
                      {
                          Notify(flapping, kType, "ssdp:byebye");
                          Notify(flapping, kType, "ssdp:alive");
                          Flap(device,
                               dueMs + kFlapMs); // based on the due time, so a delayed action does not lower the rate
                      });
}

void SsdpResponder::Notify(const Device& device, const std::string& target, const std::string& subType)
{
    ++m_counts.notifies;
    const bool isAlive = subType == "ssdp:alive";
    Send(kSsdp.group,
         "NOTIFY * HTTP/1.1\r\nHOST: 239.255.255.250:1900\r\n" +
             (isAlive ? "CACHE-CONTROL: max-age=" + std::to_string(m_settings.maxAgeSec) + "\r\n" + device.location +
                            "SERVER: " + kServer + "\r\n"
                      : std::string()) +
             "NT: " + target + "\r\nNTS: " + subType + "\r\nUSN: " + Usn(device.identity, target) + "\r\n\r\n",
         device.identity.ipv4);
}

void SsdpResponder::Send(const Endpoint& receiver, const std::string& text, std::uint32_t source)
{
    if (!m_socket.SendTo(receiver, {text.begin(), text.end()}, source))
    {
        m_schedule.In(kFullPauseMs, [this, receiver, text, source] { Send(receiver, text, source); });
    }
}

void SsdpResponder::RunUnlessSilenced(std::size_t device, unsigned int afterMs,
                                      const std::function<void(const Device&)>& action)
{
    m_schedule.In(afterMs,
                  [this, device, action, silences = m_devices[device].silences]
                  {
                      if (m_devices[device].silences == silences)
                      {
                          action(m_devices[device]);
                      }
                  });
}
