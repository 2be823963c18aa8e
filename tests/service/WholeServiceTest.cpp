#include "World.h"

#include "SeedRunner.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <functional>
#include <string>
#include <vector>

using std::chrono::minutes;
using std::chrono::seconds;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

namespace
{

/// Under many orders of the tasks' work, each in a process of its own.
void ForEachOrder(const std::function<void(World&)>& body, bool isAccessory = false, std::size_t seeds = 25)
{
    SeedRunner::ForEach(SeedRunner::Range(1, seeds),
                        [&](std::uint64_t seed)
                        {
                            World world(seed, isAccessory);
                            body(world);
                        });
}

std::vector<std::string> Published(const World& world)
{
    std::vector<std::string> calls = world.mdns.Calls();
    std::erase_if(calls, [](const std::string& call) { return !call.starts_with("publish"); });
    return calls;
}

/// A host with the network, its announcement and one neighbour.
void Settle(World& world)
{
    world.StartService();
    world.KeepAnswering();
    world.SetNetwork(true);
    world.Advertise("Bedroom");
    world.Appear("kitchen");
    world.simulation.RunFor(seconds(5));
}

} // namespace

TEST(WholeServiceTest, NeighbourOfAWarmStartBecomesOnlineByItsOwnAnswerAlone)
{
    ForEachOrder(
        [](World& world)
        {
            world.Appear("kitchen"); // the mDNS daemon knows it before we are there
            world.StartService();
            EXPECT_EQ(world.StateOf("kitchen"), "absent") << "the mode is not known yet";

            world.SetNetwork(true);
            world.simulation.RunFor(seconds(1));
            EXPECT_EQ(world.StateOf("kitchen"), "OFFLINE");
            EXPECT_EQ(world.portico.Made().back()->subProtocol, "tarsier");

            world.Gateway()->ForgetNotifications();
            ASSERT_TRUE(world.Answer("kitchen"));
            world.simulation.RunUntilIdle();
            EXPECT_EQ(world.StateOf("kitchen"), "ONLINE");
            EXPECT_THAT(world.Gateway()->Notifications("/sonarix/products"), testing::Contains(HasSubstr("ONLINE")));
        });
}

TEST(WholeServiceTest, WithoutAGatewayAtTheStartTheFirstNotificationSetsItGoingAndTheLastAnnouncementCounts)
{
    ForEachOrder(
        [](World& world)
        {
            world.StartService();
            world.Gateway()->Fail("/network/status", 503, 0, "no gateway");
            world.Gateway()->Fail("/network/wifi/stationUsage", 503, 0, "no gateway");
            EXPECT_FALSE(world.Advertise("Attic")->isError);
            EXPECT_FALSE(world.Advertise("Bedroom")->isError);
            world.Appear("kitchen");
            world.simulation.RunFor(minutes(1));
            EXPECT_EQ(world.Gateway()->Requests("/network/status").size(), 1U);
            EXPECT_THAT(Published(world), IsEmpty());

            world.SetNetwork(true);
            world.KeepAnswering();
            world.simulation.RunFor(seconds(5));
            EXPECT_THAT(Published(world), ElementsAre("publish Bedroom _kova-lanyard._tcp"));
            const auto info = world.Gateway()->Call(Portico::Verb::GET, "/sonarix/info");
            EXPECT_EQ(world.StateOf("kitchen"), "ONLINE");
            EXPECT_EQ(world.StateOf("own"), "ONLINE");
            EXPECT_THAT(info->body, HasSubstr("Bedroom"));
        });
}

TEST(WholeServiceTest, NetworkDownAndUpBringsBackNeighboursAndAnnouncement)
{
    ForEachOrder(
        [](World& world)
        {
            Settle(world);
            ASSERT_EQ(world.StateOf("kitchen"), "ONLINE");

            world.mdns.ClearCalls();
            world.SetNetwork(false);
            world.simulation.RunFor(seconds(30));
            EXPECT_EQ(world.StateOf("kitchen"), "absent") << "the change of mode forgot it";
            world.Advertise("Bedroom"); // parked
            world.Appear("hall");
            world.simulation.RunFor(seconds(30));
            EXPECT_THAT(Published(world), IsEmpty());

            world.mdns.ClearCalls();
            world.SetNetwork(true);
            world.simulation.RunFor(seconds(5));
            EXPECT_EQ(world.StateOf("kitchen"), "ONLINE");
            EXPECT_EQ(world.StateOf("hall"), "ONLINE");
            EXPECT_EQ(world.StateOf("own"), "ONLINE");
            EXPECT_THAT(Published(world), ElementsAre("publish Bedroom _kova-lanyard._tcp"));
        });
}

TEST(WholeServiceTest, GatewayAndMdnsDaemonGoAndReturn)
{
    ForEachOrder(
        [](World& world)
        {
            Settle(world);
            world.mdns.ClearCalls();
            const std::size_t connections = world.portico.Made().size();
            world.Vanish("kitchen", false); // while nobody could see it
            world.RestartGateway();
            world.simulation.RunFor(seconds(5));
            EXPECT_EQ(world.StateOf("kitchen"), "OFFLINE");
            world.Appear("kitchen");
            world.RestartGateway();
            world.simulation.RunFor(seconds(5));
            EXPECT_EQ(world.StateOf("kitchen"), "ONLINE");
            EXPECT_EQ(world.StateOf("own"), "ONLINE");
            EXPECT_THAT(world.mdns.Calls(), IsEmpty()) << "restarts nothing";
            EXPECT_EQ(world.portico.Made().size(), connections);

            world.Appear("hall");
            world.simulation.RunFor(seconds(5));
            world.mdns.KillDaemon();
            world.Vanish("hall", true);
            world.simulation.RunFor(minutes(10));
            EXPECT_EQ(world.StateOf("kitchen"), "ONLINE") << "the heartbeat judges, not mDNS";
            EXPECT_EQ(world.StateOf("hall"), "OFFLINE");

            world.mdns.ClearCalls();
            world.Appear("attic");
            world.mdns.StartDaemon();
            world.simulation.RunFor(seconds(5));
            EXPECT_EQ(world.StateOf("attic"), "ONLINE");
            EXPECT_EQ(world.StateOf("kitchen"), "ONLINE");
            EXPECT_THAT(Published(world), ElementsAre("publish Bedroom _kova-lanyard._tcp"));
        });
}

TEST(WholeServiceTest, AccessoryAnnouncesItselfAndReachesOthersByMutualTls)
{
    ForEachOrder(
        [](World& world)
        {
            world.Appear("kitchen");
            world.StartService();
            world.KeepAnswering();
            world.SetNetwork(true);
            world.SetNetwork(true);
            world.simulation.RunFor(seconds(5));
            EXPECT_THAT(Published(world), ElementsAre("publish Accessory _kova-accessory._tcp"));
            EXPECT_EQ(world.StateOf("kitchen"), "ONLINE");
            EXPECT_EQ(world.ClientFor("kitchen")->subProtocol, "tarsier_mTLS");

            world.SetNetwork(false);
            world.mdns.ClearCalls();
            world.SetNetwork(true);
            world.simulation.RunFor(seconds(5));
            EXPECT_THAT(Published(world), ElementsAre("publish Accessory _kova-accessory._tcp"));
        },
        true);
}

/// Hours in which anything may happen at any time; then a quiet minute, and the table must be right.
TEST(WholeServiceTest, AfterAnyHoursAQuietMinuteMakesTheTableRight)
{
    ForEachOrder(
        [](World& world)
        {
            const std::vector<std::string> names{"attic", "bath", "cellar", "den", "eaves"};
            bool isDaemonRunning = true;
            bool isNetworkUp = false;
            const auto setNetwork = [&](bool isUp)
            {
                isNetworkUp = isUp;
                world.SetNetwork(isUp);
                if (isUp)
                {
                    world.Advertise("Bedroom"); // as the sibling does at each rise
                }
            };
            world.StartService();
            world.KeepAnswering();
            for (int event = 0; event < 200; ++event)
            {
                const std::string& name = names[world.simulation.Random(names.size())];
                switch (world.simulation.Random(8))
                {
                case 0:
                    setNetwork(!isNetworkUp);
                    break;
                case 1:
                    isDaemonRunning ? world.mdns.KillDaemon() : world.mdns.StartDaemon();
                    isDaemonRunning = !isDaemonRunning;
                    break;
                case 2:
                    world.RestartGateway();
                    break;
                case 3:
                case 4:
                    world.Vanish(name, world.simulation.Random(2) == 0);
                    break;
                default:
                    world.Vanish(name, true); // a product that returns announces itself anew
                    world.Appear(name);
                }
                // Now and then long enough for the connection of a lost product to be let go.
                const bool isLong = world.simulation.Random(40) == 0;
                world.simulation.RunFor(isLong ? minutes(40)
                                               : std::chrono::milliseconds(world.simulation.Random(40'000)));
            }
            if (!isDaemonRunning)
            {
                world.mdns.StartDaemon();
            }
            setNetwork(true);
            world.simulation.RunFor(minutes(1));
            for (const auto& [name, isThere] : world.products)
            {
                EXPECT_EQ(world.StateOf(name) == "ONLINE", isThere) << name;
            }
        },
        false, 10);
}
