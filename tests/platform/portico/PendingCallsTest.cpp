// Requests without an answer, in virtual time; and the pauses between attempts.
#include "platform/portico/PendingCalls.h"
#include "base/Backoff.h"
#include "runtime/Task.h"
#include "runtime/engine/Simulation.h"

#include <gtest/gtest.h>

#include <vector>

using Portico::Backoff;
using Portico::PendingCalls;
using std::chrono::milliseconds;
using Strings = std::vector<std::string>;

namespace
{

class PendingCallsTest : public testing::Test
{
protected:
    PendingCallsTest()
    {
        On([this] { m_calls = std::make_unique<PendingCalls>(m_task, [] { return std::string("late"); }); });
    }
    ~PendingCallsTest() override
    {
        On([this] { m_calls.reset(); });
    }

    void On(const std::function<void()>& step)
    {
        IL::BreakThread([step] { step(); }, m_task);
        m_simulation.RunUntilIdle();
    }

    /// False: refused.
    bool Add(const std::string& name, bool isConnected, const void* owner = nullptr)
    {
        bool isAdded = false;
        const auto end = [this, name](const std::string& body, const std::string& error)
        { m_ends.push_back(name + ":" + body + error); };
        const auto frame = [&name](std::uint64_t) { return name; };
        On([&] { isAdded = m_calls->Add(frame, isConnected ? m_send : nullptr, end, owner); });
        return isAdded;
    }
    /// What has been sent and has ended since the last time, after `time` more.
    Strings After(int time)
    {
        m_simulation.RunFor(milliseconds(time));
        return std::exchange(m_ends, {});
    }

    IL::Simulation m_simulation{1};
    NotifyTargetTaskIF* m_task = IL::CreateTask("Calls", "");
    std::unique_ptr<PendingCalls> m_calls;
    Strings m_ends;
    PendingCalls::Send m_send = [this](const std::string& frame) { m_ends.push_back("sent " + frame); };
};

} // namespace

TEST_F(PendingCallsTest, EachEndsOnceInItsAnswerOrItsTimeLimit)
{
    Add("a", true);
    EXPECT_EQ(After(5000), Strings{"sent a"});
    Add("b", true);
    On(
        [this]
        {
            m_calls->Answer("2", "yes", "");
            m_calls->Answer("2", "again", "");
            m_calls->Answer("\"1\"", "no number", "");
            m_calls->Answer("null", "", "parse error");
        });
    EXPECT_EQ(After(9999), (Strings{"sent b", "b:yes"}));
    EXPECT_EQ(After(1), Strings{"a:late"});
    EXPECT_EQ(After(60000), Strings{});
}

TEST_F(PendingCallsTest, WaitsForTheConnectionTenSecondsAndThenForTheAnswerFifteen)
{
    Add("early", false);
    EXPECT_EQ(After(9000), Strings{});
    Add("later", false);
    On([this] { m_calls->Answer("1", "not asked yet", ""); });
    EXPECT_EQ(After(1000), Strings{"early:late"});
    On([this] { m_calls->SendWaiting(m_send); });
    EXPECT_EQ(After(14999), Strings{"sent later"});
    EXPECT_EQ(After(1), Strings{"later:late"});
}

TEST_F(PendingCallsTest, IsBoundedAndLetsGo)
{
    const int owner = 0;
    EXPECT_TRUE(Add("mine", false, &owner));
    for (std::size_t count = 1; count < PendingCalls::kMaxCalls; ++count)
    {
        ASSERT_TRUE(Add("x", false));
    }
    EXPECT_FALSE(Add("one too many", false));
    On([&] { m_calls->Drop(&owner); });
    EXPECT_TRUE(Add("room again", false));
    On([this] { m_calls->FailAll("gone"); });
    EXPECT_EQ(After(0).size(), PendingCalls::kMaxCalls);

    EXPECT_TRUE(Add(std::string(PendingCalls::kMaxWaitingBytes - 10, 'x'), false));
    EXPECT_FALSE(Add("too many bytes wait", false));
    EXPECT_TRUE(Add("sent, so none of the waiting", true));
    On([this] { m_calls->SendWaiting(m_send); });
    EXPECT_TRUE(Add("bytes are free again", false));
}

TEST(PorticoBackoff, GrowsToFiveSecondsWithJitterAndStartsQuickly)
{
    Backoff longest([] { return 0.999999; });
    Backoff shortest([] { return 0.0; });
    EXPECT_LE(longest.Next(), milliseconds(100));
    for (int attempt = 0; attempt < 20; ++attempt)
    {
        longest.Next();
        shortest.Next();
    }
    EXPECT_NEAR(static_cast<double>(longest.Next().count()), 4995, 5);
    EXPECT_LE(shortest.Next(), milliseconds(2501));
    longest.Reset();
    EXPECT_LE(longest.Next(), milliseconds(100));
}
