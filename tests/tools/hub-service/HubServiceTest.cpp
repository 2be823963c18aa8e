// Tests, in simulated time, when the hub service posts a description, and which one.
#include "runtime/Task.h"
#include "runtime/engine/Simulation.h"
#include "schemas/HubApi.pb.h"
#include "tools/clients/options/Options.h"
#include "tools/hub-service/Advertiser.h"
#include "tools/hub-service/Description.h"

#include <gtest/gtest.h>

#include <fstream>
#include <optional>

using namespace std::chrono_literals;

namespace
{

class AdvertiserTest : public testing::Test
{
protected:
    AdvertiserTest()
    {
        On([this] { m_advertiser.emplace(m_task, "Kitchen", [this] { ++m_posts; }); });
    }
    ~AdvertiserTest() override
    {
        On([this] { m_advertiser.reset(); });
    }

    void On(const std::function<void()>& step)
    {
        IL::BreakThread([step] { step(); }, m_task);
        m_simulation.RunUntilIdle();
    }
    void Name(const std::string& name)
    {
        On([&] { m_advertiser->HandleOwnName(name); });
    }
    void Network(bool isUp)
    {
        On([&] { m_advertiser->HandleNetwork(isUp); });
    }
    void Posted(bool isAccepted)
    {
        On([&] { m_advertiser->HandlePosted(isAccepted); });
    }

    IL::Simulation m_simulation{1};
    NotifyTargetTaskIF* m_task = IL::CreateTask("Hub", "");
    std::optional<Advertiser> m_advertiser;
    int m_posts = 0;
};

} // namespace

TEST_F(AdvertiserTest, PostsForMissingNameAndWhenNetworkComesUp)
{
    Network(false);
    Name("Kitchen");
    EXPECT_EQ(m_posts, 0);
    Name("");
    EXPECT_EQ(m_posts, 1);
    Network(true); // while the first post is pending
    EXPECT_EQ(m_posts, 1);
    Posted(true);
    EXPECT_EQ(m_posts, 2);
    Posted(true);
    Name("Kitchen");
    Network(true);
    m_simulation.RunFor(60min);
    EXPECT_EQ(m_posts, 2);
    Network(false);
    Network(true);
    EXPECT_EQ(m_posts, 3);
    Posted(true);
    Network(true);
    m_advertiser->ForgetNetwork(); // the network may have changed meanwhile
    Network(true);
    EXPECT_EQ(m_posts, 4);
}

TEST_F(AdvertiserTest, PostIsRetriedWhileThePathIsNotServed)
{
    Network(true);
    for (int attempt = 1; attempt <= 8; ++attempt)
    {
        Posted(false);
        EXPECT_EQ(m_posts, attempt) << "not at once";
        m_simulation.RunFor(5s);
    }
    Posted(true);
    m_simulation.RunFor(60min);
    EXPECT_EQ(m_posts, 9);
}

TEST_F(AdvertiserTest, RenamedRecordIsPostedWithGrowingPauses)
{
    // Each post is followed by the own record as posted, then by the record that mDNS renamed.
    Name("Kitchen #2");
    int seen = 0;
    for (int second = 0; second < 3600; ++second)
    {
        if (m_posts != seen)
        {
            seen = m_posts;
            Posted(true);
            Name("Kitchen");
            Name("Kitchen #2");
        }
        m_simulation.RunFor(1s);
    }
    EXPECT_GE(m_posts, 6);
    EXPECT_LE(m_posts, 20) << "in an hour";

    Name("Kitchen");
    m_simulation.RunFor(30min);
    const int before = m_posts;
    Name("Impostor"); // after a long time without a different name: no pause
    EXPECT_EQ(m_posts, before + 1);
}

TEST_F(AdvertiserTest, SecondWrongNameWithinThePauseIsPostedLater)
{
    Name("Other");
    Posted(true);
    Name("Kitchen");
    Name("Other");
    EXPECT_EQ(m_posts, 1);
    m_simulation.RunFor(5000ms);
    EXPECT_EQ(m_posts, 2);
    Posted(true);
    Name("Other");
    Name("Kitchen");
    m_simulation.RunFor(10min);
    EXPECT_EQ(m_posts, 2) << "it was right again when the pause was over";
}

TEST(HubDescription, OptionsOverrideFileAndGuidIsTheUnits)
{
    const std::string path = testing::TempDir() + "hub-description.json";
    std::ofstream(path) << R"({"deviceName":"From file","productColor":"Red","guid":"stolen","country":"DE"})";
    Options options(DescriptionOptions());
    const char* words[] = {"hub-service", path.c_str(), "--name", "Kitchen", "--type=Soundbar"};
    ASSERT_TRUE(options.Parse(5, words));
    HUBAPI::AdvertisementInfo info;
    std::string error;
    ASSERT_TRUE(ReadDescription(options, info, error)) << error;
    EXPECT_EQ(info.ShortDebugString(),
              R"(deviceName: "Kitchen" guid: "guid.is.not.set.perhaps.x86" ecosys: "ORB2" productType: "Soundbar" )"
              R"(productColor: "Red" country: "DE")");
}
