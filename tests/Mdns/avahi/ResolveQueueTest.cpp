#include "Mdns/avahi/ResolveQueue.h"

#include "runtime/CallbackRegistry.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <vector>

using namespace MDNS;
using testing::ElementsAre;
using testing::IsEmpty;

namespace
{

constexpr auto kFirst = ResolveQueue::Attempt::FIRST;
constexpr auto kRetry = ResolveQueue::Attempt::RETRY;

/// The queue with a fake backend. Names that begin with "@" are answered during their start. Names in m_refused fail to
/// start.
class ResolveQueueTest : public testing::Test
{
protected:
    CallbackConnection Start(const ResolveQueue::RequestPtr& request)
    {
        const std::string name = request->id.name;
        m_started.push_back(name);
        if (m_refused.contains(name))
        {
            return {};
        }
        m_resolvers[name] = request;
        m_maxResolvers = std::max(m_maxResolvers, m_resolvers.size());
        const CallbackConnection connection =
            m_frees.emplace_back(std::make_unique<CallbackRegistry<>>([this, name] { m_resolvers.erase(name); }))
                ->Connect({});
        if (name[0] == '@')
        {
            Answer(name);
        }
        return connection;
    }
    ResolveQueue::RequestPtr Add(const std::string& name, ResolveQueue::Attempt attempt = kFirst)
    {
        return m_queue->Add(
            {-1, Protocol::UNSPEC, name, "", ""},
            [this, name](const std::string& host, const Service& service)
            {
                EXPECT_EQ(service.name, name);
                m_results.push_back(name + " " + host);
                if (m_onResult)
                {
                    m_onResult(name);
                }
            },
            attempt);
    }
    void Answer(const std::string& name)
    {
        const ResolveQueue::RequestPtr request = m_resolvers.at(name);
        m_queue->Answer(request, "host", {request->id, {}, {}});
    }
    /// Starts kMaxRunning resolves "0", "1", … that get no answer.
    void Fill()
    {
        for (std::size_t i = 0; i < ResolveQueue::kMaxRunning; ++i)
        {
            m_fill.push_back(Add(std::to_string(i)));
        }
        m_started.clear();
    }

    std::set<std::string> m_refused;
    std::vector<std::string> m_started;
    std::vector<std::string> m_results;
    std::function<void(const std::string&)> m_onResult;
    std::map<std::string, ResolveQueue::RequestPtr> m_resolvers; ///< by name
    std::size_t m_maxResolvers = 0;
    std::vector<std::unique_ptr<CallbackRegistry<>>> m_frees;
    std::vector<ResolveQueue::RequestPtr> m_fill;
    std::unique_ptr<ResolveQueue> m_queue =
        std::make_unique<ResolveQueue>([this](const ResolveQueue::RequestPtr& request) { return Start(request); });
};

TEST_F(ResolveQueueTest, WaitingRequestsStartInOrderRetriesLast)
{
    Fill();
    Add("again 1", kRetry);
    Add("first 1");
    Add("again 2", kRetry);
    Add("first 2");
    EXPECT_THAT(m_started, IsEmpty());
    EXPECT_EQ(m_queue->Waiting(), 4U);
    for (const char* const name : {"7", "3", "first 1", "0"})
    {
        Answer(name);
    }
    EXPECT_THAT(m_started, ElementsAre("first 1", "first 2", "again 1", "again 2"));
    EXPECT_THAT(m_results, ElementsAre("7 host", "3 host", "first 1 host", "0 host"));
    EXPECT_EQ(m_maxResolvers, ResolveQueue::kMaxRunning) << "a resolver is freed before the next one starts";
    EXPECT_FALSE(m_resolvers.contains("7"));
}

TEST_F(ResolveQueueTest, RequestsAreCancelledInEveryState)
{
    Fill();
    const auto waiting = Add("waiting");
    const auto next = Add("next");
    m_queue->Cancel(waiting);
    EXPECT_EQ(m_queue->Waiting(), 1U);
    m_queue->Cancel(m_fill[5]); // frees its slot
    EXPECT_THAT(m_started, ElementsAre("next"));
    Answer("6");
    for (int twice = 0; twice < 2; ++twice)
    {
        m_queue->Cancel(waiting);
        m_queue->Cancel(m_fill[5]);
        m_queue->Cancel(m_fill[6]);
    }
    m_queue->Answer(m_fill[5], "late", {});
    m_queue->Answer(m_fill[6], "twice", {});
    EXPECT_THAT(m_results, ElementsAre("6 host"));
    EXPECT_EQ(m_queue->Running(), ResolveQueue::kMaxRunning - 1) << "a place was freed twice";
    EXPECT_EQ(m_resolvers.size(), m_queue->Running());

    Add("last but one");
    Add("last");
    m_queue->CancelAll();
    EXPECT_THAT(m_started, ElementsAre("next", "last but one")) << "CancelAll() started a waiting request";
    EXPECT_THAT(m_resolvers, IsEmpty());
    EXPECT_EQ(m_queue->Running() + m_queue->Waiting(), 0U);
    m_queue->Cancel(next);
    Fill();
    EXPECT_EQ(m_queue->Running(), ResolveQueue::kMaxRunning) << "usable after CancelAll()";

    Add("left");
    m_queue.reset();
    EXPECT_THAT(m_resolvers, IsEmpty()) << "the destructor frees the resolvers";
    EXPECT_THAT(m_results, ElementsAre("6 host"));
}

TEST_F(ResolveQueueTest, FailedStartsTakeNoPlace)
{
    m_refused = {"refused", "bad 1", "bad 2", "bad 3"};
    EXPECT_EQ(Add("refused"), nullptr);
    EXPECT_THAT(m_results, IsEmpty()) << "reported by the return value";
    Fill();
    EXPECT_NE(Add("bad 1"), nullptr);
    Add("bad 2");
    const auto cancelled = Add("bad 3");
    Add("good");
    m_onResult = [this, cancelled](const std::string& name)
    {
        if (name == "bad 1")
        {
            m_queue->Cancel(cancelled); // its start has failed and its callback is pending
        }
    };
    Answer("0");
    EXPECT_THAT(m_started, ElementsAre("bad 1", "bad 2", "bad 3", "good"));
    EXPECT_THAT(m_results, ElementsAre("0 host", "bad 1 NOT SEEN", "bad 2 NOT SEEN"));
    EXPECT_EQ(m_queue->Running(), ResolveQueue::kMaxRunning);
}

TEST_F(ResolveQueueTest, CallbacksMayUseAndDestroyTheQueue)
{
    EXPECT_NE(Add("@once"), nullptr) << "answered during its start";
    EXPECT_THAT(m_resolvers, IsEmpty());

    // 1000 immediate answers cause no recursion, and a callback may add a request.
    Fill();
    for (int i = 0; i < 1000; ++i)
    {
        Add("@" + std::to_string(i));
    }
    m_results.clear();
    m_onResult = [this](const std::string& name)
    {
        if (name == "0")
        {
            Add("0 again");
        }
    };
    Answer("0");
    EXPECT_EQ(m_results.size(), 1001U);
    EXPECT_EQ(m_results.front(), "@0 host");
    EXPECT_EQ(m_results.back(), "0 host");
    EXPECT_EQ(m_queue->Running(), ResolveQueue::kMaxRunning);
    EXPECT_TRUE(m_resolvers.contains("0 again"));

    m_onResult = [this](const std::string&) { m_queue.reset(); };
    Add("never");
    Answer("1");
    EXPECT_EQ(m_results.back(), "1 host");
    EXPECT_THAT(m_resolvers, IsEmpty());
}

} // namespace
