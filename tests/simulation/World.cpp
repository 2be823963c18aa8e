#include "tests/simulation/World.h"

#include "ipc/DiscoveryServiceIPCServer.h"
#include "runtime/DPrint.h"
#include "runtime/MonotonicClock.h"
#include "schemas/Sonarix.pb.h"
#include "service/DiscoveryServiceController.h"
#include "tests/simulation/SsdpNetwork.h"
#include <ProtoToMarkup.h>

#include <algorithm>
#include <cstdlib>
#include <fstream>

using std::chrono::seconds;

namespace
{

const std::string kInfo = "/sonarix/info";
const std::string kProducts = "/sonarix/products";
const std::string kStatus = "/network/status";
const std::string kChildren = "/sonarix/private/products";
const std::string kGarbage = "[1, 2";
const std::string kClientName = "DiscoveryServiceAggregator-";
const std::string kProductType = "_kova-lanyard._tcp";
const std::string kClockType = "_kova-clock._tcp";
constexpr std::int64_t kRefreshPeriodMs = 6LL * 3600 * 1000;
/// Periods of refreshes, searches and queued fetches are multiples of this. Inputs avoid these multiples, counted from
/// a refresh, so that no later action of the service coincides with a refresh.
constexpr std::int64_t kStrideMs = 10'000;
constexpr World::Milliseconds kGatewayLimit{10'000};
constexpr World::Milliseconds kResolveLimit{5'000};
constexpr std::size_t kStoryLength = 60;

void SetFile(const char* variable, const std::string& path, const std::string& content)
{
    std::ofstream(path) << content;
    setenv(variable, path.c_str(), 1);
}

std::string Json(const google::protobuf::Message& message)
{
    return ProtoToMarkup::ToJson(message, true, false, false);
}

Sonarix::Product MakeProduct(const std::string& guid, const std::string& name, const std::string& ecosystem,
                             bool isOnline)
{
    Sonarix::Product product;
    product.set_state(isOnline ? SXCommon::ONLINE : SXCommon::OFFLINE);
    product.mutable_productinfo()->set_guid(guid);
    product.mutable_productinfo()->set_ecosystem(ecosystem);
    product.mutable_productinfo()->set_friendlyname(name);
    return product;
}

/// The guid in the service name of a connection to a product. Only the prefix of such names is fixed.
std::optional<std::string> GuidOf(const std::string& serviceName)
{
    return serviceName.starts_with(kClientName) ? std::optional(serviceName.substr(kClientName.size())) : std::nullopt;
}

/// Returns true if the gateway's check of the device succeeds.
bool IsServing(const Device* device)
{
    return device != nullptr && device->answers != Device::Answers::ERROR && device->answers != Device::Answers::NEVER;
}

} // namespace

World::World(std::uint64_t seed, bool isAccessory, Milliseconds checkPeriod)
    : simulation(seed)
    , m_checkPeriod(checkPeriod)
    , m_model(isAccessory)
    , m_ssdp(std::make_unique<SsdpNetwork>(*this))
{
    const char* const levels = std::getenv("SONARIX_LOG");
    DPrint::SetLevels(levels != nullptr ? levels : "0");
    SetFile("SONARIX_MFG_DATA", m_directory.Path() + "/mfg.json", R"({"guid":"own"})");
    SetFile("SONARIX_PRODUCT_CONFIG", m_directory.Path() + "/config.json",
            isAccessory ? R"({"accessoryMode":true})" : R"({"accessoryMode":false})");
    setenv("SONARIX_ETC_DIR", (m_directory.Path() + "/").c_str(), 1);

    m_portico.SetListener(this);
    mdns.SetScript({[this](const MDNS::ServiceId& id, const FakeMdns::Script::Answer& answer)
                    { Resolving(id, answer); },
                    [this](const MDNS::ServiceId& id) { m_model.Removed(id); }});
    SonarixService::DiscoveryServiceIPCServer::s_factoryOverride.Set( // simulated time has no sockets
        [](const auto&) { return std::shared_ptr<SonarixService::DiscoveryServiceIPCServerIF>(); });
}

World::~World()
{
    m_portico.SetListener(nullptr);
    mdns.SetScript({});
}

void World::StartService()
{
    m_controller = std::make_shared<SonarixService::DiscoveryServiceController>();
    m_controller->Initialize();
    simulation.RunUntilIdle();
    m_gateway = m_portico.Find("SonarixService");
    m_childEndpoint = m_portico.Find("DiscoveryServiceOverPortico");
    m_gateway->Fail("/network/wifi/stationUsage", 404, 0, "no radio");
    m_refreshMs = NowMs() + kRefreshPeriodMs;
    Refresh();
}

/// Runs one millisecond before a refresh, because the model needs to know the refresh before its effects.
void World::Refresh()
{
    simulation.Schedule(Milliseconds(m_refreshMs - 1 - NowMs()),
                        [this]
                        {
                            m_model.Pass(NowMs());
                            m_model.Refreshed();
                            lastChangeMs = m_refreshMs;
                            m_refreshMs += kRefreshPeriodMs;
                            Say("refresh");
                            Refresh();
                        });
}

void World::At(Milliseconds delay, std::function<void()> fact)
{
    std::int64_t instant = NowMs() + std::max<std::int64_t>(delay.count(), 1);
    const auto isRefresh = [this, &instant]
    { return (instant - m_refreshMs) % kStrideMs == 0 || (instant + 1 - m_refreshMs) % kStrideMs == 0; };
    while (isRefresh() || !m_instants.insert(instant).second)
    {
        ++instant;
    }
    simulation.Schedule(Milliseconds(instant - NowMs()),
                        [this, instant, fact = std::move(fact)]
                        {
                            m_instants.erase(instant);
                            simulation.RunUntilIdle();
                            m_model.Pass(instant);
                            fact();
                            simulation.RunUntilIdle();
                            m_model.Settled();
                            Fail(m_model.complaint);
                        });
}

void World::Say(const std::string& event)
{
    if (event.empty() || !m_failure.empty())
    {
        return;
    }
    m_story.push_back(std::to_string(NowMs()) + " " + event);
    if (m_story.size() > kStoryLength)
    {
        m_story.pop_front();
    }
    static const bool s_isLoud = std::getenv("SONARIX_LOG") != nullptr;
    if (s_isLoud)
    {
        std::fprintf(stderr, "=== %s\n", m_story.back().c_str());
    }
}

void World::Fail(const std::string& what)
{
    if (m_failure.empty() && !what.empty())
    {
        m_failure = "at " + std::to_string(NowMs()) + " ms: " + what + "\nbefore:\n";
        for (const std::string& event : m_story)
        {
            m_failure += event + "\n";
        }
    }
}

World::Milliseconds World::Upto(std::uint64_t ms)
{
    return Milliseconds(1 + simulation.Random(ms));
}

std::int64_t World::NowMs()
{
    return MonotonicClock::NowMs();
}

// --- the product's own processes ---

void World::SetStatus(bool isPrimaryUp, const std::string& address, bool hasInterface)
{
    m_isNetworkUp = isPrimaryUp;
    m_status = std::string(R"({"primary":"WIRED_ETH","isPrimaryUp":)") + (isPrimaryUp ? "true" : "false") +
               (address.empty() ? "" : R"(,"primaryIpAddress":")" + address + "\"") +
               (hasInterface ? R"(,"interfaces":[{"type":"WIRED_ETH","name":"eth0"}]})" : "}");
    Say("status " + m_status);
    m_model.Status(isPrimaryUp, address, hasInterface, NowMs());
    if (!m_gateway->AnswerText(kStatus, m_status))
    {
        m_gateway->PushText(kStatus, m_status);
    }
    for (const auto& [guid, peer] : m_peers)
    {
        CheckSoon(guid);
    }
}

void World::FailFirstStatus()
{
    Say("no status");
    m_gateway->Fail(kStatus, 503, 0, "no gateway");
}

void World::Advertise(const std::string& name)
{
    if (m_isGatewayRunning)
    {
        Say("advertise " + name);
        m_model.Advertised(name);
        m_gateway->Call(Portico::Verb::POST, "/startDiscoveryAdvertisement",
                        R"({"deviceName":")" + name + R"(","guid":"own","ecosys":"ORB2"})");
    }
}

void World::PostChild(const std::string& guid, const std::string& name, bool isUpdate)
{
    if (!m_isGatewayRunning)
    {
        return;
    }
    Say("child " + guid + " " + name);
    const Sonarix::Product child = MakeProduct(guid, name, "ORB2", simulation.Random(2) == 0);
    m_model.ChildPosted(child);
    m_childEndpoint->Call(isUpdate ? Portico::Verb::PUT : Portico::Verb::POST, kChildren, Json(child));
}

void World::DeleteChild(const std::string& guid)
{
    if (m_isGatewayRunning)
    {
        Say("no child " + guid);
        m_model.ChildDeleted(guid);
        m_childEndpoint->Call(Portico::Verb::DELETE, kChildren, R"({"productinfo":{"guid":")" + guid + R"("}})");
    }
}

void World::RestartGateway(Milliseconds pause)
{
    if (!std::exchange(m_isGatewayRunning, false))
    {
        return;
    }
    Say("gateway stops");
    ++m_gatewayRun;
    for (auto& [guid, peer] : m_peers)
    {
        peer.isThere.reset();
        peer.isCheckDue = false;
        while (peer.connection->Fail(kInfo, 503, 0, "no gateway"))
        {
        }
    }
    At(pause,
       [this]
       {
           Say("gateway starts");
           m_isGatewayRunning = true;
           for (const auto& [guid, peer] : m_peers)
           {
               CheckSoon(guid);
           }
           At(Upto(500), [this] { m_gateway->PushText(kStatus, m_status); });
       });
}

void World::SetDaemon(bool isRunning)
{
    Say(isRunning ? "mDNS daemon starts" : "mDNS daemon dies");
    m_isDaemonRunning = isRunning;
    isRunning ? mdns.StartDaemon() : mdns.KillDaemon();
}

// --- devices ---

void World::Announce(Device& device)
{
    if (!device.speaksMdns)
    {
        return;
    }
    if (IsOurs(device.name))
    {
        device.name += " too"; // name collision: the later device is renamed
    }
    const std::map<std::string, std::string> txt{{"GUID", device.guid}, {"ECOSYS", device.ecosystem}};
    mdns.Announce(FakeMdns::MakeService(device.name, kProductType, txt, device.address));
    m_mute.erase({device.name, kProductType});
    if (!device.clockName.empty())
    {
        mdns.Announce(FakeMdns::MakeService(device.clockName, kClockType, txt, device.address));
        m_mute.erase({device.clockName, kClockType});
    }
}

bool World::IsAnnounced(const Device& device) const
{
    return mdns.Find(device.name, kProductType) != nullptr && !IsOurs(device.name);
}

/// True if this product's service publishes the name: its records have no address.
bool World::IsOurs(const std::string& name) const
{
    const MDNS::Service* const service = mdns.Find(name, kProductType);
    return service != nullptr && service->address.ipaddr().empty();
}

void World::Withdraw(const Device& device)
{
    if (IsAnnounced(device))
    {
        mdns.Withdraw(device.name, kProductType);
    }
    mdns.Withdraw(device.clockName, kClockType);
}

void World::ReportAgain(const Device& device, bool wasGone)
{
    if (IsAnnounced(device))
    {
        if (wasGone)
        {
            mdns.ReportGone(device.name, kProductType);
        }
        mdns.ReportAgain(device.name, kProductType);
    }
}

void World::Mute(const Device& device)
{
    if (IsAnnounced(device))
    {
        m_mute.insert({device.name, kProductType});
        mdns.FallSilent(device.name, kProductType);
    }
}

void World::Resolving(const MDNS::ServiceId& id, const FakeMdns::Script::Answer& answer)
{
    const Milliseconds usual = Upto(simulation.Random(20) == 0 ? 4000 : 300);
    At(m_mute.contains({id.name, id.type}) ? kResolveLimit : usual,
       [this, answer]
       {
           if (const MDNS::Service* const told = answer())
           {
               Say(told->type == kClockType
                       ? ""
                       : "resolved " + told->name + " " + told->type + " " + told->address.ipaddr());
               m_model.Resolved(*told);
           }
       });
}

void World::AnnounceBySsdp(const Device& device)
{
    m_ssdp->Announce(device);
}

void World::SayByeBySsdp(const std::string& guid)
{
    m_ssdp->SayBye(guid);
}

void World::ChangeLinkUnsaid()
{
    m_ssdp->ChangeLink();
}

void World::SetDescriptionsHanging(bool areHanging)
{
    m_ssdp->SetHanging(areHanging);
}

void World::SetMulticast(bool passes)
{
    m_ssdp->SetMulticast(passes);
}

/// The reachable device with that guid, or null.
const Device* World::ServerOf(const std::string& guid) const
{
    const auto device =
        std::find_if(devices.begin(), devices.end(),
                     [&guid](const Device& candidate) { return candidate.isThere && candidate.guid == guid; });
    return m_isNetworkUp && device != devices.end() ? &*device : nullptr;
}

Sonarix::ProductInfo World::Description(const Device& device)
{
    Sonarix::ProductInfo info;
    info.set_guid(device.answers == Device::Answers::AS_ANOTHER ? device.claims : device.guid);
    if (device.isTalkative)
    {
        info.set_friendlyname(device.name);
        info.set_ipaddress(device.address);
    }
    SXCommon::Icon& icon = *info.add_icons();
    icon.set_url("icon" + std::to_string(device.version % 3));
    icon.set_width(device.version);
    if (device.version % 2 == 0)
    {
        info.mutable_capabilities()->add_supportedwifibands("band" + std::to_string(device.version));
        info.mutable_configurations()->set_currentproductmode(device.version % 4 == 0 ? SXCommon::HOST
                                                                                      : SXCommon::SETUP);
    }
    if (device.version % 5 == 1)
    {
        info.add_children()->set_guid("child of " + device.guid);
    }
    return info;
}

// --- the gateway ---

void World::Opened(const std::shared_ptr<FakeConnection>& connection)
{
    if (const std::optional<std::string> guid = GuidOf(connection->serviceName))
    {
        m_model.Opened(*guid, connection->subProtocol);
        if (m_peers.contains(*guid))
        {
            Fail("connected to " + *guid + " once more");
        }
        m_peers[*guid] = {connection, nullptr, {}, false};
        CheckSoon(*guid);
        if (*guid == Model::kOwn)
        {
            PushText(*guid, Upto(20), m_ownInfo);
        }
    }
}

void World::Closed(const std::string& serviceName)
{
    if (const std::optional<std::string> guid = GuidOf(serviceName))
    {
        Say("closed " + *guid);
        m_model.Closed(*guid, MonotonicClock::NowSec());
        m_peers.erase(*guid);
    }
}

void World::Asked(const std::string& serviceName, const std::string& /*path*/)
{
    const std::optional<std::string> guid = GuidOf(serviceName);
    if (!guid)
    {
        return;
    }
    m_model.Asked(*guid);
    const Device* const device = ServerOf(*guid);
    if (*guid == Model::kOwn && m_isGatewayRunning)
    {
        DeliverOwn(*guid);
    }
    else if (!m_isGatewayRunning || device == nullptr || device->answers == Device::Answers::ERROR)
    {
        Deliver(*guid, Upto(2000), {});
    }
    else if (device->answers == Device::Answers::NEVER)
    {
        Deliver(*guid, kGatewayLimit, {});
    }
    else
    {
        const bool isLate = device->answers == Device::Answers::LATE;
        const bool isGarbage = device->answers == Device::Answers::GARBAGE;
        Deliver(*guid, isLate ? seconds(2) + Upto(7000) : Upto(300), isGarbage ? kGarbage : Json(Description(*device)));
    }
}

/// Answers the oldest request of the product; an empty `json` is an error.
void World::Deliver(const std::string& guid, Milliseconds delay, const std::string& json)
{
    At(delay,
       [this, connection = m_peers.at(guid).connection, guid, json, run = m_gatewayRun]
       {
           if (run != m_gatewayRun || !connection->IsOpen())
           {
               return;
           }
           const bool isReached = guid == Model::kOwn || ServerOf(guid) != nullptr;
           if (json.empty() || !isReached)
           {
               connection->Fail(kInfo, 503, 0, "no answer");
               if (const auto peer = m_peers.find(guid); peer != m_peers.end() && !isReached)
               {
                   peer->second.hasFailed = true; // the real gateway's checks also detect this
                   CheckSoon(guid);
               }
           }
           else if (connection->AnswerText(kInfo, json))
           {
               Told(m_answers[guid] != json ? "answer of " + guid : "", json);
               m_answers[guid] = json;
           }
       });
}

void World::Told(const std::string& how, const std::string& json)
{
    Say(how.empty() ? "" : how + " " + json.substr(0, 200));
    if (json != kGarbage)
    {
        Sonarix::ProductInfo info;
        ProtoToMarkup::FromJson(json, &info);
        m_model.Answered(info);
    }
}

/// A request of the own information, which the gateway passes to the service.
void World::DeliverOwn(const std::string& guid)
{
    At(Upto(20),
       [this, guid, run = m_gatewayRun]
       {
           if (run == m_gatewayRun && m_peers.contains(guid))
           {
               Deliver(guid, Upto(20), Get(kInfo));
           }
       });
}

void World::Push(const std::string& guid)
{
    if (const Device* const device = ServerOf(guid))
    {
        PushText(guid, Upto(300), Json(Description(*device)));
    }
}

void World::PushText(const std::string& guid, Milliseconds delay, const std::string& json)
{
    At(delay,
       [this, guid, json]
       {
           const auto peer = m_peers.find(guid);
           const bool isCarried =
               guid == Model::kOwn || (peer != m_peers.end() && peer->second.isThere.value_or(false));
           if (peer != m_peers.end() && m_isGatewayRunning && isCarried && !json.empty())
           {
               Told("push of " + guid, json);
               peer->second.connection->PushText(kInfo, json);
           }
       });
}

void World::CheckSoon(const std::string& guid)
{
    CheckIn(guid, Upto(static_cast<std::uint64_t>(m_checkPeriod.count())));
}

void World::CheckIn(const std::string& guid, Milliseconds delay)
{
    const auto peer = m_peers.find(guid);
    if (m_isGatewayRunning && peer != m_peers.end() && !std::exchange(peer->second.isCheckDue, true))
    {
        At(delay,
           [this, guid, connection = peer->second.connection, run = m_gatewayRun]
           {
               const auto at = m_peers.find(guid);
               if (run == m_gatewayRun && at != m_peers.end() && at->second.connection == connection)
               {
                   at->second.isCheckDue = false;
                   Check(guid);
               }
           });
    }
}

void World::Check(const std::string& guid)
{
    Peer& peer = m_peers.at(guid);
    const Device* const device = ServerOf(guid);
    const bool hasFailed = std::exchange(peer.hasFailed, false);
    const bool isServed = IsServing(device) && !hasFailed;
    const bool isOther = device != std::exchange(peer.servedBy, device); // the connection to the previous device broke
    const bool isThere = guid == Model::kOwn || (isServed && !(isOther && peer.isThere.value_or(false)));
    if (peer.isThere != isThere || !isThere)
    {
        if (isThere && peer.isThere == false && simulation.Random(2) == 0)
        {
            Push(guid); // a renewed subscription is notified
        }
        if (peer.isThere != isThere)
        {
            Say("heartbeat " + guid + (isThere ? " there" : " away"));
        }
        peer.isThere = isThere;
        const std::int64_t nowSec = MonotonicClock::NowSec();
        m_model.Heartbeat(guid, isThere, nowSec);
        peer.connection->SendHeartbeat(isThere ? HEARTBEAT_ONLINE : HEARTBEAT_OFFLINE);
        if (m_model.OfflineSince(guid) == nowSec)
        {
            ProbeGivenUp();
        }
    }
    if (!isThere)
    {
        CheckIn(guid, m_checkPeriod);
    }
}

/// Schedules a check of the connections for one second after the offline limit of a product that goes offline now.
void World::ProbeGivenUp()
{
    const std::int64_t overMs = (MonotonicClock::NowSec() + Model::kGiveUpAfter + 1) * 1000;
    At(Milliseconds(overMs - NowMs()), [this] { CompareConnections(); });
}

void World::Notified(const std::string& path, const google::protobuf::Message& message)
{
    if (path == kInfo)
    {
        m_ownInfo = Json(message);
        PushText(Model::kOwn, Upto(20), m_ownInfo);
    }
    else if (path == kProducts)
    {
        ++m_lists;
        if (simulation.Random(50) == 0)
        {
            CompareTable(dynamic_cast<const Sonarix::ProductList&>(message));
        }
    }
}

// --- comparing ---

std::string World::Get(const std::string& path)
{
    const auto answer = m_gateway->Call(Portico::Verb::GET, path);
    simulation.RunUntilIdle();
    return answer->body;
}

void World::CompareTable(const Sonarix::ProductList& list)
{
    const std::vector<std::string> table = m_model.Table();
    for (std::size_t row = 0; row < std::max(table.size(), static_cast<std::size_t>(list.products_size())); ++row)
    {
        const std::string seen = row < static_cast<std::size_t>(list.products_size())
                                     ? Model::Row(list.products(static_cast<int>(row))).Text()
                                     : "nothing";
        const std::string expected = row < table.size() ? table[row] : "nothing";
        if (seen != expected)
        {
            Fail(std::string("row ").append(std::to_string(row)) + "\n  is        " + seen + "\n  should be " +
                 expected);
        }
    }
}

void World::Compare()
{
    ++m_comparisons;
    Sonarix::ProductList list;
    ProtoToMarkup::FromJson(Get(kProducts), &list);
    CompareTable(list);
    Sonarix::ProductInfo own;
    ProtoToMarkup::FromJson(Get(kInfo), &own);
    Model::Row ownRow;
    ownRow.Take(own);
    if (ownRow.Text() != m_model.Own())
    {
        Fail("the own description\n  is        " + ownRow.Text() + "\n  should be " + m_model.Own());
    }
    if (m_lists != m_model.lists)
    {
        Fail("the list was notified " + std::to_string(m_lists) + " times, not " + std::to_string(m_model.lists));
    }
    CompareConnections();
    CompareWithWorld();
}

void World::CompareConnections()
{
    for (const std::string& guid : m_model.connections)
    {
        const auto peer = m_peers.find(guid);
        const std::optional<std::int64_t> since = m_model.OfflineSince(guid);
        if (peer == m_peers.end())
        {
            Fail("no connection to " + guid);
        }
        // A row that a refresh set to ONLINE meanwhile does not start the reaper.
        else if (const Model::Row* const row = m_model.Find(guid);
                 row != nullptr && !row->isOnline && since && MonotonicClock::NowSec() - *since > Model::kGiveUpAfter &&
                 peer->second.isThere)
        {
            Fail(guid + " is still not given up after " + std::to_string(MonotonicClock::NowSec() - *since) + " s");
        }
    }
}

/// Checks the effects that must have occurred by now.
void World::CompareWithWorld()
{
    for (const auto& [guid, peer] : m_peers)
    {
        const Device* const device = ServerOf(guid);
        const Model::Row* const row = m_model.Find(guid);
        const auto speaksForIt = [&guid = guid](const Device& other)
        { return other.answers == Device::Answers::AS_ANOTHER && other.claims == guid; };
        const bool isAway =
            guid != Model::kOwn && !IsServing(device) && std::none_of(devices.begin(), devices.end(), speaksForIt);
        const bool isRight = guid == Model::kOwn || (IsServing(device) && (device->answers == Device::Answers::RIGHT ||
                                                                           device->answers == Device::Answers::LATE));
        // An expired product is contacted again at each report, but only until the next pass of the reaper, which can
        // come before any response or heartbeat. Then the row stays unchanged, and a refresh may have set it to ONLINE.
        const std::optional<std::int64_t> since = m_model.OfflineSince(guid);
        const bool isGivenUp = since && MonotonicClock::NowSec() - *since >= Model::kGiveUpAfter;
        if (row == nullptr || (!isGivenUp && ((isRight && !row->isOnline) || (isAway && row->isOnline))))
        {
            Fail(guid + (isRight ? " answers" : " is away") + " and is listed as " + (row ? row->Text() : "nothing"));
        }
    }
    for (const Device& device : devices)
    {
        if (m_model.isDiscovering && m_isDaemonRunning && IsAnnounced(device) &&
            !m_mute.contains({device.name, kProductType}) && !m_model.IsResolved(device.name, kProductType))
        {
            Fail(device.name + " is announced and was never resolved");
        }
        if (m_ssdp->MustKnow(device) && !m_model.IsDescribed(device.guid))
        {
            Fail(device.name + " answers searches and was never described");
        }
    }
    if (m_model.searchDue && *m_model.searchDue <= NowMs())
    {
        Fail("no search since it was due at " + std::to_string(*m_model.searchDue));
    }
    if (m_model.publication && m_isDaemonRunning)
    {
        const MDNS::ServiceId& id = *m_model.publication;
        bool isFound = mdns.Find(id.name, id.type) != nullptr && (id.type != kProductType || IsOurs(id.name));
        for (int number = 2; number < 20 && !isFound; ++number)
        {
            isFound = IsOurs(id.name + " #" + std::to_string(number));
        }
        if (!isFound)
        {
            Fail(id.name + " " + id.type + " is not announced");
        }
    }
}
