#include "platform/portico/RequestQueue.h"

#include "base/Backoff.h"
#include "runtime/Task.h"
#include "runtime/engine/Simulation.h"

#include <gtest/gtest.h>

#include <vector>

using Portico::Backoff;
using Portico::RequestQueue;
using std::chrono::milliseconds;
using Strings = std::vector<std::string>;

namespace
{

constexpr std::size_t kMaxFrameBytes = RequestQueue::kMaxWaitingBytes;

class RequestQueueTest : public testing::Test
{
protected:
    RequestQueueTest()
    {
        On([this] { m_queue = std::make_unique<RequestQueue>(m_task, "guid"); });
    }
    ~RequestQueueTest() override
    {
        On([this] { m_queue.reset(); });
    }

    void On(const std::function<void()>& step)
    {
        IL::BreakThread([step] { step(); }, m_task);
        m_simulation.RunUntilIdle();
    }

    void Add(const std::string& name, bool isConnected, const void* owner = nullptr)
    {
        const auto end = [this, name](const JsonRpc::Answer& answer)
        { m_ends.push_back(name + ":" + answer.result + (answer.IsError() ? std::to_string(answer.code) : "")); };
        On([&] { m_queue->Add("get", '"' + name + '"', isConnected ? m_send : nullptr, end, kMaxFrameBytes, owner); });
    }
    void Finish(const std::string& id, const std::string& result)
    {
        On([&] { m_queue->Finish(id, JsonRpc::Answer::Result(result)); });
    }
    /// Runs for `time` ms. Returns what was sent and what ended since the last call.
    Strings After(int time)
    {
        m_simulation.RunFor(milliseconds(time));
        return std::exchange(m_ends, {});
    }

    IL::Simulation m_simulation{1};
    NotifyTargetTaskIF* m_task = IL::CreateTask("Requests", "");
    std::unique_ptr<RequestQueue> m_queue;
    Strings m_ends;
    RequestQueue::Send m_send = [this](const std::string& frame)
    { m_ends.push_back("sent " + JsonRpc::FrameFromText(frame).id.value()); };
};

} // namespace

TEST_F(RequestQueueTest, EachRequestEndsOnceInAnAnswerOrATimeout)
{
    Add("a", true);
    EXPECT_EQ(After(5000), Strings{"sent 1"});
    Add("b", true);
    Finish("2", "yes");
    for (const char* const id : {"2", "\"1\"", "null", "", "99"})
    {
        Finish(id, "no such request");
    }
    EXPECT_EQ(After(9999), (Strings{"sent 2", "b:yes"}));
    EXPECT_EQ(After(1), Strings{"a:504"});
    EXPECT_EQ(After(60000), Strings{});
}

TEST_F(RequestQueueTest, ConnectLimitIs10sAndAnswerLimit15s)
{
    Add("early", false);
    EXPECT_EQ(After(9000), Strings{});
    Add("later", false);
    Finish("1", "not sent yet");
    EXPECT_EQ(After(1000), Strings{"early:504"});
    On([this] { m_queue->SendWaiting(m_send); });
    EXPECT_EQ(After(14999), Strings{"sent 2"});
    EXPECT_EQ(After(1), Strings{"later:504"});
}

TEST_F(RequestQueueTest, IsBoundedInRequestsAndInWaitingBytes)
{
    const int owner = 0;
    Add("mine", false, &owner);
    for (std::size_t count = 1; count < RequestQueue::kMaxRequests; ++count)
    {
        Add("x", false);
    }
    EXPECT_EQ(After(0), Strings{});
    Add("one too many", false);
    EXPECT_EQ(After(0), Strings{"one too many:503"});
    On([&] { m_queue->Remove(&owner); });
    Add("in the freed place", false);
    EXPECT_EQ(After(0), Strings{});
    On([this] { m_queue->FailAll(JsonRpc::Answer::Error(1, "lost", {})); });
    EXPECT_EQ(After(0).size(), RequestQueue::kMaxRequests);

    Add(std::string(RequestQueue::kMaxWaitingBytes - 100, 'x'), false);
    Add(std::string(100, 'y'), false);
    EXPECT_EQ(After(0), Strings{std::string(100, 'y') + ":503"});
    EXPECT_EQ(After(10000).size(), 1U) << "the first request has ended at its time limit";
    Add(std::string(100, 'y'), false);
    Add(std::string(kMaxFrameBytes, 'z'), true);
    EXPECT_EQ(After(0), Strings{std::string(kMaxFrameBytes, 'z') + ":413"});
}

TEST(PorticoBackoff, GrowsFromTenthsToFiveSecondsWithJitter)
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
