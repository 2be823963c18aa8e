#include "Mdns/avahi/BrowseRepeat.h"

#include "runtime/engine/RandomSequence.h"

#include <gtest/gtest.h>

#include <string>

using namespace MDNS;

namespace
{

using Ids = std::set<ServiceId>;
using Step = BrowseRepeat::Step;

ServiceId Id(std::size_t n)
{
    return {static_cast<int>(n % 2), Protocol::INET, "name " + std::to_string(n / 2), "_type._tcp", "local"};
}

/// The services that the daemon knows, and those that a subscriber gets through BrowseRepeat.
struct World
{
    void Add(const ServiceId& id)
    {
        if (known.insert(id).second && isBrowsing && repeat.Add(id))
        {
            EXPECT_TRUE(reported.insert(id).second) << id.name << " twice";
        }
    }
    void Remove(const ServiceId& id)
    {
        if (known.erase(id) != 0 && isBrowsing && repeat.Remove(id))
        {
            EXPECT_EQ(reported.erase(id), 1U) << id.name << " was not reported";
        }
    }
    void AddAndRemove(IL::RandomSequence& random, std::size_t events)
    {
        for (std::size_t i = 0; i < events; ++i)
        {
            const ServiceId id = Id(random.Below(300));
            random.Below(3) == 0 ? Remove(id) : Add(id);
        }
    }
    void Browse()
    {
        isBrowsing = true;
        for (const ServiceId& id : known)
        {
            EXPECT_FALSE(repeat.Add(id)) << "reported before TakeChanges()";
        }
    }
    void ReportChanges()
    {
        const auto [removed, added] = repeat.TakeChanges();
        for (const ServiceId& id : removed)
        {
            EXPECT_EQ(reported.erase(id), 1U);
        }
        for (const ServiceId& id : added)
        {
            EXPECT_TRUE(reported.insert(id).second);
        }
    }

    BrowseRepeat repeat;
    bool isBrowsing = true;
    Ids known;
    Ids reported;
};

BrowseRepeat Started(std::size_t reports)
{
    BrowseRepeat repeat;
    repeat.Begin(0);
    for (std::size_t n = 0; n < reports; ++n)
    {
        EXPECT_TRUE(repeat.Add(Id(n)));
    }
    return repeat;
}

TEST(BrowseRepeatTest, SubscriberGetsTheKnownServicesAfterAnyEvents)
{
    for (std::uint64_t seed = 1; seed <= 200; ++seed)
    {
        SCOPED_TRACE("seed " + std::to_string(seed));
        IL::RandomSequence random(seed);
        World world;
        world.repeat.Begin(1000);
        for (std::size_t n = 0; n < BrowseRepeat::kMany; ++n)
        {
            world.Add(Id(n));
        }
        ASSERT_EQ(world.repeat.NextMs(), 1000 + BrowseRepeat::kEndMs);
        world.AddAndRemove(random, random.Below(100));
        EXPECT_EQ(world.reported, world.known);
        ASSERT_EQ(world.repeat.Due(1000 + BrowseRepeat::kTooLateMs), Step::END_BROWSE);
        world.isBrowsing = false;
        world.AddAndRemove(random, random.Below(100));
        ASSERT_EQ(world.repeat.NextMs(), 1000 + BrowseRepeat::kBrowseMs);
        ASSERT_EQ(world.repeat.Due(1000 + BrowseRepeat::kBrowseMs), Step::BROWSE);
        world.Browse();
        world.AddAndRemove(random, random.Below(20));
        world.ReportChanges();
        EXPECT_EQ(world.reported, world.known);
        world.AddAndRemove(random, 300);
        EXPECT_EQ(world.reported, world.known);
        EXPECT_FALSE(world.repeat.NextMs());
    }
}

TEST(BrowseRepeatTest, NoRepeatForFewServicesOrAfterTheSecondQuery)
{
    BrowseRepeat few = Started(BrowseRepeat::kMany - 1);
    EXPECT_FALSE(few.NextMs());
    few.AllForNow();
    EXPECT_TRUE(few.Add(Id(BrowseRepeat::kMany)));
    EXPECT_FALSE(few.NextMs()) << "a service that appears later causes no repeat";
    BrowseRepeat known = Started(BrowseRepeat::kMany);
    known.AllForNow(); // comes at once if the daemon browses this type already
    EXPECT_FALSE(known.NextMs());

    BrowseRepeat late = Started(BrowseRepeat::kMany);
    EXPECT_EQ(late.Due(BrowseRepeat::kTooLateMs + 1), Step::NOTHING);
    EXPECT_FALSE(late.NextMs());
    EXPECT_TRUE(late.TakeChanges().removed.empty()) << "the first browser stays";
    EXPECT_TRUE(late.Add(Id(0)));
}

} // namespace
