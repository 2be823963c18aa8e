// Random lives of a product, held against the model after each event. A failing seed runs again alone.

#include "AggregatorModel.h"
#include "MonotonicClock.h"
#include "SeedRunner.h"

#include <gtest/gtest.h>

#include <sstream>

namespace
{

using Source = AggregatorModel::Source;
using Sighting = AggregatorModel::Sighting;

const char* const kInfoPath = "/sonarix/info";

class RandomLife
{
public:
    explicit RandomLife(std::uint64_t seed)
        : m_world(seed)
    {
        m_world.mdns->answerAtOnce.emplace();
        m_model.nowMs = MonotonicClock::NowMs();
        m_model.refreshAtMs = m_model.nowMs + 6LL * 3600 * 1000;
        m_world.Start();
        m_model.infosNotified = m_world.infos.size();
    }

    void Step()
    {
        switch (Random(12))
        {
        case 0:
        case 1:
            ReportBySsdp();
            break;
        case 2:
        case 3:
            ReportByMdns();
            break;
        case 4:
            PostChild();
            break;
        case 5:
            RemoveChild();
            break;
        case 6:
        case 7:
            AnswerQuery();
            break;
        case 8:
            SendHeartbeat();
            break;
        case 9:
            Random(3) == 0 ? ChangeMode() : Advertise();
            break;
        case 10:
            ChangeSourceLists();
            break;
        default:
            PassTime();
            break;
        }
        m_world.simulation.RunUntilIdle();
        Compare();
    }

    const std::string& LastEvents() const
    {
        return m_events;
    }

private:
    std::uint64_t Random(std::uint64_t bound)
    {
        return m_world.simulation.Random(bound);
    }
    bool OneIn(std::uint64_t bound)
    {
        return Random(bound) == 0;
    }
    void Say(const std::string& event)
    {
        m_events += std::to_string(m_model.nowMs) + " " + event + "\n";
    }
    std::string Guid()
    {
        const char* const guids[] = {"a", "b", "c", kOwn, "z"};
        return guids[Random(std::size(guids))];
    }
    std::string Address()
    {
        return OneIn(3) ? "" : "10.0.0." + std::to_string(Random(4));
    }
    std::string Name()
    {
        return OneIn(3) ? "" : "name" + std::to_string(Random(4));
    }

    Sighting Sight(SXCommon::DiscoveryProtocol protocol)
    {
        Sighting sighting;
        sighting.report.guid = Guid();
        sighting.report.state = OneIn(2) ? SXCommon::ONLINE : SXCommon::OFFLINE;
        sighting.report.protocols = {protocol};
        if (OneIn(10))
        {
            sighting.report.protocols = {SXCommon::SSDP, SXCommon::MDNS};
        }
        sighting.report.address = Address();
        sighting.report.name = Name();
        sighting.report.type = OneIn(10) ? "_kova-clock._tcp" : "_kova-lanyard._tcp";
        sighting.isOfFamily = !OneIn(10);
        sighting.hasConfigurations = sighting.report.guid == kOwn && OneIn(4);
        return sighting;
    }

    void ReportBySsdp()
    {
        const Sighting sighting = Sight(SXCommon::SSDP);
        Say("ssdp " + sighting.report.guid);
        m_world.ssdp->Report(sighting.Product());
        m_model.Reported(sighting, Source::SSDP);
    }
    void ReportByMdns()
    {
        const Sighting sighting = Sight(SXCommon::MDNS);
        Say("mdns " + sighting.report.guid);
        m_world.mdns->Report(sighting.Product());
        m_model.Reported(sighting, Source::MDNS);
    }
    void PostChild()
    {
        const Sighting sighting = Sight(SXCommon::SSDP);
        Say("child " + sighting.report.guid);
        m_world.Child(OneIn(2) ? Portico::Verb::POST : Portico::Verb::PUT, sighting.Product());
        m_model.Reported(sighting, Source::CHILD);
    }
    void RemoveChild()
    {
        const std::string guid = Guid();
        Say("remove child " + guid);
        m_world.Child(Portico::Verb::DELETE, Report{.guid = guid}.Product());
        m_model.ChildRemoved(guid);
    }
    void AnswerQuery()
    {
        const std::string asked = Guid();
        const auto remote = m_world.Remote(asked);
        if (!remote || !remote->IsOpen())
        {
            return;
        }
        Sonarix::ProductInfo info = AggregatorWorld::Info(OneIn(8) ? Guid() : asked, Name());
        const std::string address = Address();
        if (!address.empty())
        {
            info.set_ipaddress(address);
        }
        Say("answer of " + asked + " as " + info.guid());
        if (remote->Waiting(kInfoPath) == 0 || OneIn(3) ? remote->Push(kInfoPath, info)
                                                        : remote->Answer(kInfoPath, info))
        {
            m_model.Answered(info.guid(),
                             info.has_friendlyname() ? std::optional<std::string>(info.friendlyname()) : std::nullopt,
                             info.has_ipaddress() ? std::optional<std::string>(address) : std::nullopt);
        }
    }
    void SendHeartbeat()
    {
        const std::string guid = Guid();
        const int statuses[] = {HEARTBEAT_ONLINE, HEARTBEAT_OFFLINE, HEARTBEAT_OFFLINE, 1042};
        const int status = statuses[Random(std::size(statuses))];
        const auto remote = m_world.Remote(guid);
        if (!remote || !remote->SendHeartbeat(static_cast<PORTICO_CLIENT_ERRORS>(status)))
        {
            return;
        }
        Say("heartbeat " + guid + " " + std::to_string(status));
        if (OneIn(8))
        {
            ChangeMode(); // overtakes the heartbeat that is on its way
        }
        m_model.Heartbeat(guid, status);
    }
    void Advertise()
    {
        Say("advertisement");
        m_world.aggregator->HandleProductInfoAdvertisement(AggregatorWorld::Info(kOwn, "advertised"));
        m_model.Advertised("advertised");
    }
    void ChangeMode()
    {
        const SXCommon::ProductMode modes[] = {SXCommon::SETUP, SXCommon::HOST, SXCommon::HOST, SXCommon::ACCESSORY,
                                               SXCommon::UNKNOWN_MODE};
        const SXCommon::ProductMode mode = modes[Random(std::size(modes))];
        const std::string address = Address();
        Say("mode " + SXCommon::ProductMode_Name(mode) + " " + address);
        m_world.aggregator->InitializeProtocols(mode, address);
        m_model.SetMode(mode, address);
    }
    void ChangeSourceLists()
    {
        const auto fill = [this](SXCommon::DiscoveryProtocol protocol, Sonarix::ProductList& list)
        {
            std::vector<Sighting> sightings;
            list.Clear();
            for (std::uint64_t i = Random(4); i > 0; --i)
            {
                sightings.push_back(Sight(protocol));
                *list.add_products() = sightings.back().Product();
            }
            return sightings;
        };
        m_model.ssdpList = fill(SXCommon::SSDP, m_world.ssdp->list);
        m_model.mdnsList = fill(SXCommon::MDNS, *m_world.mdns->answerAtOnce);
    }
    void PassTime()
    {
        const std::uint64_t longest[] = {1500, 600'000, 1'801'000, 8'000'000, 30'000'000};
        const auto ms = static_cast<std::int64_t>(Random(longest[Random(std::size(longest))]));
        m_world.Pass(std::chrono::milliseconds(ms));
        m_model.AdvanceTo(m_model.nowMs + ms);
        Say("time passed");
    }

    static std::string Describe(const AggregatorModel::Row& row)
    {
        std::ostringstream text;
        text << row.guid << ' ' << SXCommon::ProductState_Name(row.state) << " at " << row.address.value_or("-") << " "
             << row.name.value_or("-");
        for (const int protocol : row.protocols)
        {
            text << ' ' << protocol;
        }
        text << '\n';
        return text.str();
    }

    std::string Expected() const
    {
        std::ostringstream text;
        for (const auto& [guid, row] : m_model.rows)
        {
            text << (m_model.children.contains(guid) ? "" : Describe(row));
        }
        for (const auto& [guid, row] : m_model.children)
        {
            text << Describe(row);
        }
        for (const auto& [guid, protocol] : m_model.connections)
        {
            if (!protocol.empty())
            {
                text << guid << " by " << protocol << '\n';
            }
        }
        text << m_model.ownName.value_or("-") << ' ' << m_model.address << ' '
             << SXCommon::ProductMode_Name(m_model.mode) << ", children " << m_model.children.size() << "\nlists "
             << m_model.listsNotified << ", infos " << m_model.infosNotified << ", queries " << m_model.queries;
        return text.str();
    }

    std::string Seen() const
    {
        std::ostringstream text;
        const Sonarix::ProductList list = m_world.List();
        for (const Sonarix::Product& product : list.products())
        {
            const Sonarix::ProductInfo& info = product.productinfo();
            AggregatorModel::Row row;
            row.state = product.state();
            row.protocols.insert(product.protocols().begin(), product.protocols().end());
            EXPECT_EQ(static_cast<int>(row.protocols.size()), product.protocols_size());
            row.guid = info.guid();
            row.address = info.has_ipaddress() ? std::optional<std::string>(info.ipaddress()) : std::nullopt;
            row.name = info.has_friendlyname() ? std::optional<std::string>(info.friendlyname()) : std::nullopt;
            text << Describe(row);
        }
        std::map<std::string, std::string> connections;
        std::size_t queries = 0;
        for (const auto& connection : m_world.portico.Made())
        {
            queries += connection->Requests(kInfoPath).size();
            if (connection->IsOpen() && connection->serviceName != "DiscoveryServiceOverPortico")
            {
                EXPECT_FALSE(connections.contains(connection->guid)); // one a guid
                connections[connection->guid] = connection->subProtocol;
            }
        }
        for (const auto& [guid, protocol] : connections)
        {
            text << guid << " by " << protocol << '\n';
        }
        const Sonarix::ProductInfo own = m_world.Own();
        text << (own.has_friendlyname() ? own.friendlyname() : "-") << ' ' << own.ipaddress() << ' '
             << SXCommon::ProductMode_Name(own.configurations().currentproductmode()) << ", children "
             << own.children_size() << "\nlists " << m_world.lists.size() << ", infos " << m_world.infos.size()
             << ", queries " << queries;
        return text.str();
    }

    void Compare() const
    {
        ASSERT_EQ(Seen(), Expected());
    }

    AggregatorWorld m_world;
    AggregatorModel m_model;
    std::string m_events;
};

} // namespace

TEST(AggregatorRandomTest, TheTableIsAsTheModelHasItAfterEachEvent)
{
    SeedRunner::ForEach(SeedRunner::Range(1, 200),
                        [](std::uint64_t seed)
                        {
                            const LogCapture quiet("0"); // own reports throw on purpose
                            RandomLife life(seed);
                            for (int step = 0; step < 150 && !testing::Test::HasFailure(); ++step)
                            {
                                life.Step();
                            }
                            EXPECT_FALSE(testing::Test::HasFatalFailure()) << life.LastEvents();
                        });
}
