#include "runtime/CallbackRegistry.h"

#include "tests/support/Watched.h"

#include <atomic>
#include <chrono>
#include <future>
#include <gmock/gmock.h>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <vector>

namespace
{

using testing::ElementsAre;
using testing::IsEmpty;

class CallbackRegistryTest : public testing::Test
{
protected:
    using Registry = CallbackRegistry<std::string>;

    CallbackConnection Add(const std::string& name)
    {
        return m_registry->Connect([this, name](const std::string& text) { m_calls.push_back(name + text); });
    }

    std::vector<std::string> Send(const std::string& text = "", const CallbackConnection& except = {})
    {
        m_calls.clear();
        m_registry->Send(text, except);
        return m_calls;
    }

    std::vector<std::string> m_calls;
    int m_emptied = 0;
    std::unique_ptr<Registry> m_registry = std::make_unique<Registry>(Callback<void>([this] { ++m_emptied; }));
};

TEST_F(CallbackRegistryTest, CallsInOrderOfConnectionAndSkipsExcept)
{
    Add("a"); // dropping the handle leaves the subscription active
    const CallbackConnection b = Add("b");
    CallbackConnection c = Add("c");
    EXPECT_THAT(Send("1"), ElementsAre("a1", "b1", "c1"));
    EXPECT_THAT(Send("2", b), ElementsAre("a2", "c2"));

    c = Add("d"); // overwriting a handle does not disconnect either
    b.Disconnect();
    b.Disconnect();
    EXPECT_FALSE(b.IsConnected());
    EXPECT_THAT(Send("3", b), ElementsAre("a3", "c3", "d3"));
    EXPECT_EQ(m_emptied, 0);
}

TEST_F(CallbackRegistryTest, SubscribersMayComeAndGoDuringASend)
{
    CallbackConnection self;
    CallbackConnection later;
    const auto lifetime = std::make_shared<int>(0);
    self = m_registry->Connect(
        [&, lifetime](const std::string&)
        {
            self.Disconnect();
            self.Disconnect();
            later.Disconnect();
            EXPECT_FALSE(later.IsConnected());
            EXPECT_GT(lifetime.use_count(), 1) << "destroyed during its own call";
            m_calls.push_back("self");
            Add("new");
        });
    later = Add("later");
    Add("last");
    EXPECT_THAT(Send(), ElementsAre("self", "last"));
    EXPECT_THAT(Send(), ElementsAre("last", "new"));
    EXPECT_EQ(m_emptied, 0);
}

TEST_F(CallbackRegistryTest, OnEmptyFiresAtEachEmptying)
{
    {
        ScopedConnection scoped = Add("first");
        scoped = Add("second"); // ends the first
        EXPECT_THAT(Send(), ElementsAre("second"));
    }
    EXPECT_EQ(m_emptied, 1);
    CallbackConnection self;
    self = m_registry->Connect(
        [&](const std::string&)
        {
            self.Disconnect();
            EXPECT_EQ(m_emptied, 1) << "called before the end of the Send";
        });
    Send();
    EXPECT_EQ(m_emptied, 2);
    m_registry->DisconnectAll(); // already empty
    EXPECT_EQ(m_emptied, 2);

    m_registry->Connect([this](const std::string&) { m_registry->DisconnectAll(); });
    const CallbackConnection later = Add("later");
    EXPECT_THAT(Send(), ElementsAre("later")) << "connected until the end of the Send";
    EXPECT_FALSE(later.IsConnected());
    EXPECT_EQ(m_emptied, 3);
    EXPECT_THAT(Send(), IsEmpty());
}

TEST_F(CallbackRegistryTest, NestedSendSkipsADisconnectedSubscriber)
{
    CallbackConnection self;
    self = m_registry->Connect(
        [&](const std::string&)
        {
            m_calls.push_back("self");
            self.Disconnect();
            m_registry->Send("inner", {});
        });
    Add("other ");
    EXPECT_THAT(Send("outer"), ElementsAre("self", "other inner", "other outer"));
    EXPECT_THAT(Send("again"), ElementsAre("other again"));
}

TEST_F(CallbackRegistryTest, MayBeDestroyedDuringASend)
{
    CallbackConnection killer;
    killer = m_registry->Connect(
        [&](const std::string&)
        {
            m_registry.reset();
            m_calls.push_back("killer");
            killer.Disconnect();
        });
    const CallbackConnection later = Add("later");
    const auto* const registry = m_registry.get();
    registry->Send("", {});
    EXPECT_THAT(m_calls, ElementsAre("killer"));
    EXPECT_FALSE(later.IsConnected());
    later.Disconnect(); // after the registry's destruction
    EXPECT_EQ(m_emptied, 0) << "onEmpty called after the registry's destruction";
}

TEST_F(CallbackRegistryTest, OnEmptyMayDestroyTheRegistry)
{
    auto owned = std::make_unique<std::optional<Registry>>();
    std::string told;
    owned->emplace(Callback<void>(
        [&told, &owned, text = std::string("a text longer than what fits into a string itself")]
        {
            owned.reset();
            told = text;
        }));
    const CallbackConnection connection = (*owned)->Connect([](const std::string&) {});
    connection.Disconnect();
    EXPECT_EQ(told, "a text longer than what fits into a string itself");
}

// The destructor of an object that a callback holds may disconnect from another registry. With the mutex held, two
// registries that do this to each other on two threads would deadlock.
TEST_F(CallbackRegistryTest, CallbacksAreDestroyedWithoutTheMutex)
{
    const auto mutex = std::make_shared<CThreadMutex>();
    int probed = 0;
    const auto obtain = [&](const void*)
    {
        // This thread could take the recursive mutex although it holds it, so another thread checks that it is free.
        const auto taken = std::async(std::launch::async, [&] { const ScopedMutex lock(*mutex); });
        EXPECT_EQ(taken.wait_for(std::chrono::seconds(2)), std::future_status::ready);
        ++probed;
    };
    const auto probe = [&] { return std::shared_ptr<void>(nullptr, obtain); };
    CallbackRegistry<> registry({}, mutex);
    registry.Connect([held = probe()] {}).Disconnect();
    registry.Connect([held = probe()] {});
    registry.DisconnectAll();
    CallbackConnection victim;
    registry.Connect([&victim] { victim.Disconnect(); });
    victim = registry.Connect([held = probe()] {});
    registry.Send({});
    EXPECT_EQ(probed, 3);
}

// Two senders, a third thread that connects and disconnects, a subscriber that disconnects itself; at the end the
// registry is destroyed while a Send may still run.
TEST(CallbackRegistryThreads, TwoMaySendWhileOthersConnect)
{
    constexpr int kRounds = 300;
    for (int repetition = 0; repetition < 5; ++repetition)
    {
        auto registry = std::make_shared<CallbackRegistry<int>>();
        std::atomic<int> steady = 0;
        registry->Connect([&steady](const int&) { ++steady; });

        {
            const auto send = [registry]
            {
                for (int i = 0; i < kRounds; ++i)
                {
                    registry->Send(i, {});
                }
            };
            const std::jthread first(send);
            const std::jthread second(send);
            const std::jthread third(
                [registry]
                {
                    for (int i = 0; i < kRounds; ++i)
                    {
                        const auto self = std::make_shared<Watched<CallbackConnection>>();
                        self->Set(registry->Connect([self](const int&) { self->Get().Disconnect(); }));
                        const CallbackConnection gone = registry->Connect([](const int&) {});
                        gone.Disconnect();
                        EXPECT_FALSE(gone.IsConnected());
                        self->Get().Disconnect();
                        self->Set({}); // breaks the callback's reference to itself
                    }
                });
            registry.reset(); // the last thread destroys it
        }
        EXPECT_EQ(steady, 2 * kRounds);
    }
}

} // namespace
