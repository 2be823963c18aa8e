#include "tests/simulation/SsdpNetwork.h"

#include "runtime/CallbackRegistry.h"
#include "ssdp/FetchQueue.h"
#include "ssdp/GSSDPHandlerIF.h"
#include "ssdp/SsdpDiscoveryProtocol.h"
#include "tests/fakes/FakeHttp.h"

#include <algorithm>
#include <map>
#include <optional>
#include <system_error>
#include <utility>

using std::chrono::seconds;
using Handler = SonarixService::GSSDPHandlerIF;

namespace
{

const std::string kTarget = "urn:schemas-upnp-org:device:MediaRenderer:1";
constexpr World::Milliseconds kTransferLimit{5'000};
constexpr std::int64_t kBeforeRefreshMs = 90'000;
constexpr std::int64_t kLongEnoughMs = 120'000; ///< longest time until a device is found and described
constexpr int kTimedOut = 28;                   ///< curl's error codes
constexpr int kRefused = 7;

std::string Usn(const std::string& guid)
{
    return "uuid:" + guid + "::" + kTarget;
}

/// Icon URLs repeat between devices on purpose.
Model::Description DescriptionOf(const Device& device)
{
    return {device.name, device.ecosystem, {{"icon" + std::to_string(device.version % 3), 1000 + device.version}}};
}

std::string Xml(const Model::Description& description)
{
    std::string xml =
        R"(<?xml version="1.0"?><root><device><friendlyName>)" + description.name.value_or("") + "</friendlyName>";
    if (!description.ecosystem.empty())
    {
        xml += "<kova:X_ecoSystem>" + description.ecosystem + "</kova:X_ecoSystem>";
    }
    for (const auto& [url, width] : description.icons)
    {
        xml += "<iconList><icon><width>" + std::to_string(width) + "</width><url>" + url + "</url></icon></iconList>";
    }
    return xml + "</device></root>";
}

} // namespace

class World::SsdpNetwork::Adapter final : public Handler, public std::enable_shared_from_this<Adapter>
{
public:
    Adapter(SsdpNetwork& network, bool isReady)
        : m_isReady(isReady)
        , m_network(network)
    {
    }
    void RegisterForSearchStatus(const Callback<SearchStatus>& callback) override
    {
        m_status.Connect(callback);
    }
    void RegisterForResourceStatus(const Callback<ResourceStatus, std::string, std::string>& callback) override
    {
        m_resources.Connect(callback);
    }
    bool StartSearch(const std::string& target, int timeoutSec) override
    {
        return m_network.Search(shared_from_this(), target, timeoutSec);
    }
    void Report(ResourceStatus status, const std::string& guid, const std::string& location)
    {
        m_resources.Send(status, Usn(guid), location, {});
    }
    void Report(SearchStatus status)
    {
        m_status.Send(status, {});
    }

    const bool m_isReady; ///< false: creating the GSSDP client failed
    bool m_hasSearched = false;
    std::map<std::string, std::string> m_known; ///< LOCATION by guid
    const std::int64_t m_sinceMs = NowMs();

private:
    SsdpNetwork& m_network;
    CallbackRegistry<SearchStatus> m_status;
    CallbackRegistry<ResourceStatus, std::string, std::string> m_resources;
};

/// HTTP engine that delivers the devices' descriptions.
class World::SsdpNetwork::Engine final : public FakeHttp
{
public:
    explicit Engine(SsdpNetwork& network)
        : m_network(network)
        , m_world(network.m_world)
    {
    }
    OpHandle Get(const std::string& url, const ResponseCallback& callback, std::uint32_t, const std::string&,
                 std::uint32_t, std::uint32_t, const Http::Headers&) override
    {
        const Transfer transfer{url, callback, m_world.m_model.Fetches(url, NowMs())};
        if (m_network.OneIn(200))
        {
            m_world.m_model.Fetched(transfer.number, {});
            throw std::system_error(std::make_error_code(std::errc::resource_unavailable_try_again));
        }
        using Describes = Device::Describes;
        const Device* const device = m_network.ServerOf(url);
        const Describes how = device != nullptr && !m_network.m_isHanging ? device->describes : Describes::NEVER;
        if (how == Describes::BUSY)
        {
            Wait(transfer);
        }
        else
        {
            const Milliseconds late = seconds(2) + m_world.Upto(2900);
            End(transfer, how == Describes::NEVER ? kTransferLimit : how == Describes::LATE ? late : m_world.Upto(300));
        }
        return nullptr;
    }

private:
    struct Transfer
    {
        std::string url;
        ResponseCallback callback;
        unsigned number; ///< the model's fetch number
    };

    /// Simulates a 503 with Retry-After: sleeps if the bound on sleeping retries allows it, then retries.
    void Wait(const Transfer& transfer)
    {
        m_world.At(m_world.Upto(300),
                   [this, transfer]
                   {
                       if (m_sleeping >= SonarixService::FetchQueue::kMaxSleeping)
                       {
                           m_world.m_model.Fetched(transfer.number, {});
                           Http::HSMResponse response;
                           response.status = 503;
                           transfer.callback(response);
                           return;
                       }
                       ++m_sleeping;
                       m_world.At(m_world.Upto(120'000),
                                  [this, transfer]
                                  {
                                      --m_sleeping;
                                      End(transfer, m_world.Upto(300));
                                  });
                   });
    }

    void End(const Transfer& transfer, Milliseconds delay)
    {
        m_world.At(delay,
                   [this, transfer]
                   {
                       using Describes = Device::Describes;
                       const Device* const device = m_network.ServerOf(transfer.url);
                       std::optional<Model::Description> description;
                       Http::HSMResponse response;
                       response.status = 200;
                       switch (device != nullptr && !m_network.m_isHanging ? device->describes : Describes::NEVER)
                       {
                       case Describes::RIGHT:
                       case Describes::LATE:
                       case Describes::BUSY:
                           description = DescriptionOf(*device);
                           response.body = Xml(*description);
                           break;
                       case Describes::ANYTHING:
                           description.emplace();
                           response.body = "<html><device/></html>";
                           break;
                       case Describes::GARBAGE:
                           response.body = "<root><device>";
                           break;
                       case Describes::NOTHING:
                           break;
                       case Describes::NOT_FOUND:
                           response.status = 404;
                           response.body = Xml(DescriptionOf(*device));
                           break;
                       case Describes::NEVER:
                           response.status = 0;
                           response.curlStatus = device != nullptr ? kTimedOut : kRefused;
                           break;
                       }
                       const std::string summary = std::to_string(response.status) + " " + response.body;
                       m_world.Say(std::exchange(m_lastResponses[transfer.url], summary) == summary
                                       ? ""
                                       : transfer.url + ": " + summary);
                       m_world.m_model.Fetched(transfer.number, description);
                       transfer.callback(response);
                   });
    }

    SsdpNetwork& m_network;
    World& m_world;
    std::map<std::string, std::string> m_lastResponses; ///< last response by URL, to log only changes
    std::size_t m_sleeping = 0;
};

World::SsdpNetwork::SsdpNetwork(World& world)
    : m_world(world)
{
    Handler::s_factoryOverride.Set(this);
    static SsdpNetwork* s_network = nullptr; // the factory is a plain function
    s_network = this;
    SonarixService::SsdpDiscoveryProtocol::s_factoryOverride.Set(
        []() -> std::shared_ptr<SonarixService::SsdpDiscoveryProtocolIF>
        {
            return std::make_shared<SonarixService::SsdpDiscoveryProtocol>(
                std::make_unique<Engine>(*s_network), [](const std::string&) { return s_network->m_link; });
        });
}

World::SsdpNetwork::~SsdpNetwork()
{
    Handler::s_factoryOverride.Set(nullptr);
    SonarixService::SsdpDiscoveryProtocol::s_factoryOverride.Set(nullptr);
}

std::shared_ptr<Handler> World::SsdpNetwork::Create(const std::string& iface)
{
    const auto adapter = std::make_shared<Adapter>(*this, !OneIn(8));
    m_world.Say("SSDP on " + iface + (adapter->m_isReady ? "" : ", without success"));
    if (!m_adapter.expired())
    {
        m_world.Fail("a second adapter");
    }
    m_world.m_model.SsdpBegins(!m_link.IsSameAs(std::exchange(m_adapterLink, m_link)));
    m_adapter = adapter;
    return adapter;
}

bool World::SsdpNetwork::Search(const std::shared_ptr<Adapter>& adapter, const std::string& target, int timeoutSec)
{
    m_world.m_model.Searched(NowMs());
    if (target != kTarget)
    {
        m_world.Fail("a search for " + target);
    }
    if (!m_link.IsSameAs(m_adapterLink))
    {
        m_world.Fail("a search on an interface that is no more");
    }
    if (!adapter->m_isReady || OneIn(50))
    {
        return false;
    }
    adapter->m_hasSearched = true;
    adapter->Report(Handler::SEARCH_IN_PROGRESS);
    for (const auto& [guid, location] : std::exchange(adapter->m_known, {}))
    {
        adapter->Report(Handler::RESOURCE_UNAVAILABLE, guid, "");
    }
    const std::weak_ptr<Adapter> receiver = adapter;
    for (const Device& device : m_world.devices)
    {
        if (device.speaksSsdp && device.isThere && PassesMulticast() && !(device.isFaint && OneIn(2)))
        {
            m_world.At(m_world.Upto(device.isFaint ? 12'000 : 3'000),
                       [this, receiver, &device] { Receive(receiver, device); });
        }
    }
    m_world.At(seconds(timeoutSec) + m_world.Upto(999),
               [this, receiver]
               {
                   if (const auto searching = receiver.lock())
                   {
                       m_world.m_model.SearchOver();
                       searching->Report(Handler::SEARCH_COMPLETE);
                   }
               });
    return true;
}

void World::SsdpNetwork::Receive(const std::weak_ptr<Adapter>& receiver, const Device& device)
{
    const auto adapter = receiver.lock();
    if (!adapter || !adapter->m_hasSearched || !device.speaksSsdp || !device.isThere || !PassesMulticast())
    {
        return;
    }
    const auto known = adapter->m_known.find(device.guid);
    if (known != adapter->m_known.end() && known->second == device.location)
    {
        return;
    }
    if (known != adapter->m_known.end())
    {
        m_world.m_model.HeardBye(device.guid);
        adapter->Report(Handler::RESOURCE_UNAVAILABLE, device.guid, "");
    }
    adapter->m_known[device.guid] = device.location;
    m_world.m_model.Heard(device.guid, device.location, NowMs());
    adapter->Report(Handler::RESOURCE_AVAILABLE, device.guid, device.location);
}

void World::SsdpNetwork::Announce(const Device& device)
{
    Receive(m_adapter, device);
}

void World::SsdpNetwork::SayBye(const std::string& guid)
{
    const auto adapter = m_adapter.lock();
    if (adapter && PassesMulticast() && adapter->m_known.erase(guid) != 0)
    {
        m_world.Say("SSDP byebye " + guid);
        m_world.m_model.HeardBye(guid);
        adapter->Report(Handler::RESOURCE_UNAVAILABLE, guid, "");
    }
}

void World::SsdpNetwork::SetMulticast(bool passes)
{
    if (std::exchange(m_passesMulticast, passes) != passes)
    {
        m_multicastMs = NowMs();
        m_world.Say(passes ? "multicast passes" : "no multicast");
    }
}

void World::SsdpNetwork::ChangeLink()
{
    ++(OneIn(2) ? m_link.index : m_link.subnets.front().address);
    m_world.Say("another link, unsaid");
}

void World::SsdpNetwork::SetHanging(bool isHanging)
{
    m_isHanging = isHanging;
    m_world.Say(isHanging ? "descriptions hang" : "descriptions come");
}

bool World::SsdpNetwork::PassesMulticast() const
{
    return m_passesMulticast || m_world.m_refreshMs - NowMs() < kBeforeRefreshMs;
}

/// The device at that LOCATION, or null.
const Device* World::SsdpNetwork::ServerOf(const std::string& location) const
{
    const auto device = std::find_if(m_world.devices.begin(), m_world.devices.end(),
                                     [&location](const Device& candidate)
                                     { return candidate.isThere && candidate.location == location; });
    return m_world.m_isNetworkUp && device != m_world.devices.end() ? &*device : nullptr;
}

bool World::SsdpNetwork::MustKnow(const Device& device) const
{
    const auto adapter = m_adapter.lock();
    const bool isHeard = adapter && adapter->m_isReady && m_passesMulticast && device.speaksSsdp && device.isThere &&
                         !device.isFaint && !device.guid.empty() &&
                         NowMs() - std::max(adapter->m_sinceMs, m_multicastMs) > kLongEnoughMs;
    const bool isServing = device.describes == Device::Describes::RIGHT || device.describes == Device::Describes::LATE;
    const auto isInTheWay = [&device](const Device& other)
    { return other.speaksSsdp && (other.guid == device.guid || other.address == device.address); };
    return isHeard && isServing && device.location.find(device.address) != std::string::npos &&
           std::count_if(m_world.devices.begin(), m_world.devices.end(), isInTheWay) == 1;
}

bool World::SsdpNetwork::OneIn(std::uint64_t bound)
{
    return m_world.simulation.Random(bound) == 0;
}
