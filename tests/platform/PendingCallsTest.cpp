// Requests without an answer, in virtual time; and the pauses between attempts.
#include "PendingCalls.h"
#include "Backoff.h"
#include "Simulation.h"
#include "Task.h"

#include <gtest/gtest.h>

#include <vector>

using Portico::Backoff;
using Portico::PendingCalls;
using std::chrono::milliseconds;

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
        On(
            [&]
            {
                isAdded = m_calls->Add([&](std::uint64_t id) { return name + std::to_string(id); },
                                       isConnected ? m_send : nullptr,
                                       [this, name](const std::string& body, const std::string& error)
                                       { m_ends.push_back(name + ":" + body + error); },
                                       owner);
            });
        return isAdded;
    }

    IL::Simulation m_simulation{1};
    NotifyTargetTaskIF* m_task = IL::CreateTask("Calls", "");
    std::unique_ptr<PendingCalls> m_calls;
    std::vector<std::string> m_sent;
    std::vector<std::string> m_ends;
    PendingCalls::Send m_send = [this](const std::string& frame) { m_sent.push_back(frame); };
};

} // namespace

TEST_F(PendingCallsTest, EachEndsOnceInItsAnswerOrItsTimeLimit)
{
    EXPECT_TRUE(Add("a", true));
    m_simulation.RunFor(milliseconds(5000));
    EXPECT_TRUE(Add("b", true));
    EXPECT_EQ(m_sent, (std::vector<std::string>{"a1", "b2"}));
    On(
        [this]
        {
            m_calls->Answer("2", "yes", "");
            m_calls->Answer("2", "again", "");
            m_calls->Answer("\"1\"", "no number", "");
            m_calls->Answer("null", "", "parse error");
        });
    EXPECT_EQ(m_ends, std::vector<std::string>{"b:yes"});
    m_simulation.RunFor(milliseconds(9999));
    EXPECT_EQ(m_ends.size(), 1U);
    m_simulation.RunFor(milliseconds(1));
    EXPECT_EQ(m_ends, (std::vector<std::string>{"b:yes", "a:late"}));
    m_simulation.RunFor(milliseconds(60000));
    EXPECT_EQ(m_ends.size(), 2U);
}

TEST_F(PendingCallsTest, WaitsForTheConnectionTenSecondsAndThenForTheAnswerFifteen)
{
    EXPECT_TRUE(Add("early", false));
    m_simulation.RunFor(milliseconds(9000));
    EXPECT_TRUE(Add("later", false));
    On([this] { m_calls->Answer("1", "not asked yet", ""); });
    m_simulation.RunFor(milliseconds(1000));
    EXPECT_EQ(m_ends, std::vector<std::string>{"early:late"});
    On([this] { m_calls->SendWaiting(m_send); });
    EXPECT_EQ(m_sent, std::vector<std::string>{"later2"});
    m_simulation.RunFor(milliseconds(14999));
    EXPECT_EQ(m_ends.size(), 1U);
    m_simulation.RunFor(milliseconds(1));
    EXPECT_EQ(m_ends.back(), "later:late");
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
    EXPECT_EQ(m_ends.size(), PendingCalls::kMaxCalls);

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
    milliseconds last{0};
    for (int attempt = 0; attempt < 20; ++attempt)
    {
        const milliseconds high = longest.Next();
        const milliseconds low = shortest.Next();
        EXPECT_GE(high, last);
        EXPECT_LE(high, milliseconds(5000));
        EXPECT_LE(low, high);
        EXPECT_GE(low * 2 + milliseconds(2), high);
        last = high;
    }
    EXPECT_GE(last, milliseconds(4990));
    longest.Reset();
    EXPECT_LE(longest.Next(), milliseconds(100));
}
