// Random lives of a product, held against the model after each event. A failing seed runs again alone.

#include "AggregatorModel.h"
#include "MonotonicClock.h"
#include "ProtoToMarkup.h"
#include "SeedRunner.h"

namespace
{

using Protocols = std::vector<SXCommon::DiscoveryProtocol>;

class RandomLife
{
public:
    explicit RandomLife(std::uint64_t seed)
        : m_world(seed, "0") // own reports throw on purpose
    {
        m_world.mdns->answerAtOnce.emplace();
        m_model.nowMs = MonotonicClock::NowMs();
        m_model.refreshAtMs = m_model.nowMs + 6LL * 3600 * 1000;
        m_world.Start();
        m_model.infos = m_world.infos.size();
    }

    void Step()
    {
        using Life = RandomLife;
        (this->*OneOf<void (Life::*)()>({&Life::Discover, &Life::Discover, &Life::Discover, &Life::Discover,
                                         &Life::Discover, &Life::RemoveChild, &Life::AnswerQuery, &Life::AnswerQuery,
                                         &Life::SendHeartbeat, &Life::ChangeOwn, &Life::ChangeSourceLists,
                                         &Life::PassTime}))();
        m_world.simulation.RunUntilIdle();
        ASSERT_EQ(Seen(), m_model.Visible()) << m_events;
    }

private:
    template <class T>
    T OneOf(std::initializer_list<T> choices)
    {
        return std::data(choices)[m_world.simulation.Random(choices.size())];
    }
    bool OneIn(std::uint64_t bound)
    {
        return m_world.simulation.Random(bound) == 0;
    }
    std::string Guid()
    {
        return OneOf<std::string>({"a", "b", "c", kOwn, "z"});
    }
    std::string Address()
    {
        return OneOf<std::string>({"", "", "10.0.0.1", "10.0.0.2", "10.0.0.3", "10.0.0.4"});
    }
    void Say(const std::string& event)
    {
        m_events += std::to_string(m_model.nowMs) + " " + event + "\n";
    }

    Sonarix::Product Sight(const Protocols& usually)
    {
        const Protocols protocols = OneIn(10) ? OneOf<Protocols>({{}, {SXCommon::SSDP, SXCommon::MDNS}}) : usually;
        Report report{.guid = Guid(), .name = OneOf<std::string>({"", "x", "y"}), .address = Address()};
        report.state = OneOf({SXCommon::ONLINE, SXCommon::OFFLINE});
        report.type = OneIn(10) ? OneOf<std::string>({"", "_kova-clock._tcp"}) : report.type;
        report.ecosystem = OneIn(10) ? OneOf<std::string>({"", "orb2", "ORB2 "}) : report.ecosystem;
        if (report.guid == kOwn && OneIn(4))
        {
            report.more = [](Sonarix::ProductInfo& info) { info.mutable_configurations(); };
        }
        return report.By(protocols);
    }

    void Discover()
    {
        const auto source = OneOf<std::string>({"child", "mdns", "mdns", "ssdp", "ssdp"});
        const Sonarix::Product product = Sight({source == "mdns" ? SXCommon::MDNS : SXCommon::SSDP});
        Say(source + ": " + product.ShortDebugString());
        if (source == "child")
        {
            const auto answer = m_world.Child(OneOf({Portico::Verb::POST, Portico::Verb::PUT}), product);
            EXPECT_FALSE(answer->isError); // acknowledged, whatever becomes of it
        }
        else if (source == "mdns")
        {
            m_world.mdns->Report(product);
        }
        else
        {
            m_world.ssdp->Report(product);
        }
        m_model.Reported(product, source);
    }
    void RemoveChild()
    {
        const std::string guid = Guid();
        Say("remove child " + guid);
        m_world.Child(Portico::Verb::DELETE, Report{guid}.By({}));
        m_model.ChildRemoved(guid);
    }
    void AnswerQuery()
    {
        const std::string asked = Guid();
        if (!m_world.IsWatched(asked))
        {
            return;
        }
        Sonarix::Product answer = Sight({});
        answer.clear_protocols();
        answer.mutable_productinfo()->clear_configurations();
        if (!OneIn(8))
        {
            answer.mutable_productinfo()->set_guid(asked); // else somebody else answers, or nobody
        }
        Say("answer of " + asked + ": " + answer.ShortDebugString());
        const std::string json = ProtoToMarkup::ToJson(answer.productinfo(), true, false, false);
        const bool isPushed = OneIn(3) || !m_world.Remote(asked)->AnswerText(kInfoPath, json);
        EXPECT_TRUE(!isPushed || m_world.Remote(asked)->PushText(kInfoPath, json));
        m_model.Answered(answer);
    }
    void SendHeartbeat()
    {
        const std::string guid = Guid();
        const int status = OneOf<int>({HEARTBEAT_ONLINE, HEARTBEAT_OFFLINE, HEARTBEAT_OFFLINE, 1042});
        if (!m_world.IsWatched(guid))
        {
            return;
        }
        m_world.Remote(guid)->SendHeartbeat(static_cast<PORTICO_CLIENT_ERRORS>(status));
        Say("heartbeat " + guid + " " + std::to_string(status));
        if (OneIn(8))
        {
            ChangeOwn(); // overtakes the heartbeat that is on its way
        }
        m_model.Heartbeat(guid, status);
    }
    void ChangeOwn()
    {
        if (OneIn(3))
        {
            Say("advertisement");
            m_world.aggregator->HandleProductInfoAdvertisement(Report{kOwn, "advertised"}.By({}).productinfo());
            m_model.Advertised("advertised");
            return;
        }
        const auto mode = OneOf({SXCommon::SETUP, SXCommon::HOST, SXCommon::ACCESSORY, SXCommon::UNKNOWN_MODE});
        const std::string address = Address();
        Say("mode " + SXCommon::ProductMode_Name(mode) + " " + address);
        m_world.aggregator->InitializeProtocols(mode, address);
        m_model.SetMode(mode, address);
    }
    void ChangeSourceLists()
    {
        const auto fill = [this](SXCommon::DiscoveryProtocol protocol)
        {
            Sonarix::ProductList list;
            while (!OneIn(3))
            {
                *list.add_products() = Sight({protocol}); // the sources decide what they list
            }
            return list;
        };
        m_world.ssdp->list = m_model.ssdpList = fill(SXCommon::SSDP);
        *m_world.mdns->answerAtOnce = m_model.mdnsList = fill(SXCommon::MDNS);
    }
    void PassTime()
    {
        const auto upTo = [this](std::uint64_t longest)
        { return static_cast<std::int64_t>(m_world.simulation.Random(longest)); };
        const auto ms = OneOf<std::int64_t>({upTo(1500), upTo(600'000), 1'799'000, 1'800'000, upTo(30'000'000)});
        m_world.simulation.RunFor(std::chrono::milliseconds(ms));
        m_model.AdvanceTo(m_model.nowMs + ms);
        Say("time passed");
    }

    std::vector<std::string> Seen() const
    {
        std::vector<std::string> lines;
        const Sonarix::ProductList list = m_world.List();
        for (const Sonarix::Product& product : list.products())
        {
            const AggregatorModel::Row row(product);
            EXPECT_EQ(static_cast<int>(row.protocols.size()), product.protocols_size());
            lines.push_back(row.Text());
        }
        std::map<std::string, std::string> connections;
        std::size_t queries = 0;
        for (const auto& connection : m_world.portico.Made())
        {
            queries += connection->Requests(kInfoPath).size();
            if (connection->IsOpen() && connection->serviceName != "DiscoveryServiceOverPortico")
            {
                EXPECT_TRUE(connections.emplace(connection->guid, connection->subProtocol).second) << "one a guid";
            }
        }
        for (const auto& [guid, protocol] : connections)
        {
            lines.push_back(guid + " by " + protocol);
        }
        const Sonarix::ProductInfo own = m_world.Own();
        lines.push_back(own.friendlyname() + " at " + own.ipaddress() + " " +
                        SXCommon::ProductMode_Name(own.configurations().currentproductmode()));
        lines.push_back(AggregatorModel::Counts(static_cast<std::size_t>(own.children_size()), m_world.lists.size(),
                                                m_world.infos.size(), queries));
        return lines;
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
                            RandomLife life(seed);
                            for (int step = 0; step < 150 && !testing::Test::HasFailure(); ++step)
                            {
                                life.Step();
                            }
                        });
}
