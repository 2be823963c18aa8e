#include "Mdns/SecondLook.h"

#include "runtime/engine/RandomSequence.h"

#include <gtest/gtest.h>

#include <string>

using namespace MDNS;

namespace
{

using Ids = std::set<ServiceId>;
using Step = SecondLook::Step;

ServiceId Id(std::size_t n)
{
    return {static_cast<int>(n % 2), Protocol::INET, "name " + std::to_string(n / 2), "_type._tcp", "local"};
}

/// What the daemon knows, and who listens to a browser of it through the look.
struct Listening
{
    void Add(const ServiceId& id)
    {
        if (there.insert(id).second && isBrowsing && look.IsNews(id))
        {
            EXPECT_TRUE(told.insert(id).second) << id.name << " twice";
        }
    }
    void Remove(const ServiceId& id)
    {
        if (there.erase(id) != 0 && isBrowsing && look.IsTold(id))
        {
            EXPECT_EQ(told.erase(id), 1U) << id.name << " was not told of";
        }
    }
    void Browse()
    {
        isBrowsing = true;
        for (const ServiceId& id : there)
        {
            EXPECT_FALSE(look.IsNews(id)) << "before all that is known has come";
        }
    }
    void TellChanges()
    {
        const auto [gone, come] = look.TakeChanges();
        for (const ServiceId& id : gone)
        {
            EXPECT_EQ(told.erase(id), 1U);
        }
        for (const ServiceId& id : come)
        {
            EXPECT_TRUE(told.insert(id).second);
        }
    }

    SecondLook look;
    bool isBrowsing = true;
    Ids there;
    Ids told;
};

TEST(SecondLookTest, WhoListensKnowsWhatIsThereWhateverHappensMeanwhile)
{
    for (std::uint64_t seed = 1; seed <= 200; ++seed)
    {
        SCOPED_TRACE("seed " + std::to_string(seed));
        IL::RandomSequence random(seed);
        Listening listening;
        const auto live = [&](std::size_t events)
        {
            for (std::size_t i = 0; i < events; ++i)
            {
                const ServiceId id = Id(random.Below(300));
                random.Below(3) == 0 ? listening.Remove(id) : listening.Add(id);
            }
        };
        listening.look.Begin(1000);
        for (std::size_t n = 0; n < SecondLook::kMany; ++n)
        {
            listening.Add(Id(n));
        }
        ASSERT_EQ(listening.look.NextMs(), 1000 + SecondLook::kEndMs);
        live(random.Below(100));
        EXPECT_EQ(listening.told, listening.there);
        ASSERT_EQ(listening.look.Due(1000 + SecondLook::kTooLateMs), Step::END_BROWSE);
        listening.isBrowsing = false;
        live(random.Below(100));
        ASSERT_EQ(listening.look.NextMs(), 1000 + SecondLook::kBrowseMs);
        ASSERT_EQ(listening.look.Due(1000 + SecondLook::kBrowseMs), Step::BROWSE);
        listening.Browse();
        live(random.Below(20));
        listening.TellChanges();
        EXPECT_EQ(listening.told, listening.there);
        live(300);
        EXPECT_EQ(listening.told, listening.there);
        EXPECT_FALSE(listening.look.NextMs());
    }
}

TEST(SecondLookTest, NoneWhereFewAnswerOrTheSecondQuestionIsUnderWay)
{
    const auto report = [](SecondLook& look, std::size_t count)
    {
        look.Begin(0);
        for (std::size_t n = 0; n < count; ++n)
        {
            EXPECT_TRUE(look.IsNews(Id(n)));
        }
    };
    SecondLook few;
    report(few, SecondLook::kMany - 1);
    EXPECT_FALSE(few.NextMs());
    few.AllForNow();
    EXPECT_TRUE(few.IsNews(Id(SecondLook::kMany)));
    EXPECT_FALSE(few.NextMs()) << "who comes later was not asked together with the rest";
    SecondLook warm;
    report(warm, SecondLook::kMany);
    warm.AllForNow(); // at once where the daemon has asked for somebody else before
    EXPECT_FALSE(warm.NextMs());

    SecondLook late;
    report(late, SecondLook::kMany);
    EXPECT_EQ(late.Due(SecondLook::kTooLateMs + 1), Step::NOTHING);
    EXPECT_FALSE(late.NextMs());
    EXPECT_TRUE(late.TakeChanges().gone.empty()) << "the first browser stays";
    EXPECT_TRUE(late.IsNews(Id(0)));
}

} // namespace
