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

constexpr auto kFirst = ResolveQueue::Order::FIRST;
constexpr auto kAgain = ResolveQueue::Order::AGAIN;

/// The queue on a backend that remembers what it holds. Names that begin with "@" are answered from within their
/// start; those in m_refused can't be started.
class ResolveQueueTest : public testing::Test
{
protected:
    CallbackConnection Start(const ResolveQueue::AskPtr& ask)
    {
        const std::string name = ask->id.name;
        m_started.push_back(name);
        if (m_refused.contains(name))
        {
            return {};
        }
        m_held[name] = ask;
        m_most = std::max(m_most, m_held.size());
        const CallbackConnection connection =
            m_frees.emplace_back(std::make_unique<CallbackRegistry<>>([this, name] { m_held.erase(name); }))
                ->Connect({});
        if (name[0] == '@')
        {
            Answer(name);
        }
        return connection;
    }
    ResolveQueue::AskPtr Add(const std::string& name, ResolveQueue::Order order = kFirst)
    {
        return m_queue->Add(
            {-1, Protocol::UNSPEC, name, "", ""},
            [this, name](const std::string& host, const Service& service)
            {
                EXPECT_EQ(service.name, name);
                m_heard.push_back(name + " " + host);
                if (m_whenHeard)
                {
                    m_whenHeard(name);
                }
            },
            order);
    }
    void Answer(const std::string& name)
    {
        const ResolveQueue::AskPtr ask = m_held.at(name);
        m_queue->Answer(ask, "host", {ask->id, {}, {}});
    }
    /// Takes every place with silent resolves "0", "1", ...
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
    std::vector<std::string> m_heard;
    std::function<void(const std::string&)> m_whenHeard;
    std::map<std::string, ResolveQueue::AskPtr> m_held; ///< by name, as long as the backend holds something for it
    std::size_t m_most = 0;
    std::vector<std::unique_ptr<CallbackRegistry<>>> m_frees;
    std::vector<ResolveQueue::AskPtr> m_fill;
    std::unique_ptr<ResolveQueue> m_queue =
        std::make_unique<ResolveQueue>([this](const ResolveQueue::AskPtr& ask) { return Start(ask); });
};

TEST_F(ResolveQueueTest, WhatWaitsStartsInOrderAndRepeatsLast)
{
    Fill();
    Add("again 1", kAgain);
    Add("first 1");
    Add("again 2", kAgain);
    Add("first 2");
    EXPECT_THAT(m_started, IsEmpty());
    EXPECT_EQ(m_queue->Waiting(), 4U);
    for (const char* const name : {"7", "3", "first 1", "0"})
    {
        Answer(name);
    }
    EXPECT_THAT(m_started, ElementsAre("first 1", "first 2", "again 1", "again 2"));
    EXPECT_THAT(m_heard, ElementsAre("7 host", "3 host", "first 1 host", "0 host"));
    EXPECT_EQ(m_most, ResolveQueue::kMaxRunning) << "each is freed before the next starts";
    EXPECT_FALSE(m_held.contains("7"));
}

TEST_F(ResolveQueueTest, CancelledInEveryStateAndTwice)
{
    Fill();
    const auto waiting = Add("waiting");
    const auto next = Add("next");
    m_queue->Cancel(waiting);
    EXPECT_EQ(m_queue->Waiting(), 1U);
    m_queue->Cancel(m_fill[5]); // frees its place
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
    EXPECT_THAT(m_heard, ElementsAre("6 host"));
    EXPECT_EQ(m_queue->Running(), ResolveQueue::kMaxRunning - 1) << "no place is freed twice";
    EXPECT_EQ(m_held.size(), m_queue->Running());

    Add("last but one");
    Add("last");
    m_queue->CancelAll();
    EXPECT_THAT(m_started, ElementsAre("next", "last but one")) << "none of those that wait is started in passing";
    EXPECT_THAT(m_held, IsEmpty());
    EXPECT_EQ(m_queue->Running() + m_queue->Waiting(), 0U);
    m_queue->Cancel(next);
    Fill();
    EXPECT_EQ(m_queue->Running(), ResolveQueue::kMaxRunning) << "as good as new";

    Add("left");
    m_queue.reset();
    EXPECT_THAT(m_held, IsEmpty()) << "its end frees what it holds";
    EXPECT_THAT(m_heard, ElementsAre("6 host"));
}

TEST_F(ResolveQueueTest, AStartThatFailsTakesNoPlace)
{
    m_refused = {"refused", "bad 1", "bad 2", "bad 3"};
    EXPECT_EQ(Add("refused"), nullptr);
    EXPECT_THAT(m_heard, IsEmpty()) << "who asked knows";
    Fill();
    EXPECT_NE(Add("bad 1"), nullptr);
    Add("bad 2");
    const auto cancelled = Add("bad 3");
    Add("good");
    m_whenHeard = [this, cancelled](const std::string& name)
    {
        if (name == "bad 1")
        {
            m_queue->Cancel(cancelled); // has failed as well, and is about to be told
        }
    };
    Answer("0");
    EXPECT_THAT(m_started, ElementsAre("bad 1", "bad 2", "bad 3", "good"));
    EXPECT_THAT(m_heard, ElementsAre("0 host", "bad 1 NOT SEEN", "bad 2 NOT SEEN"));
    EXPECT_EQ(m_queue->Running(), ResolveQueue::kMaxRunning);
}

TEST_F(ResolveQueueTest, CallsComeBackIntoItAndEndIt)
{
    EXPECT_NE(Add("@once"), nullptr) << "answered from within its start";
    EXPECT_THAT(m_held, IsEmpty());

    // A thousand of them leave no deeper stack behind, and one that asks again finds a place.
    Fill();
    for (int i = 0; i < 1000; ++i)
    {
        Add("@" + std::to_string(i));
    }
    m_heard.clear();
    m_whenHeard = [this](const std::string& name)
    {
        if (name == "0")
        {
            Add("0 anew");
        }
    };
    Answer("0");
    EXPECT_EQ(m_heard.size(), 1001U);
    EXPECT_EQ(m_heard.front(), "@0 host");
    EXPECT_EQ(m_heard.back(), "0 host");
    EXPECT_EQ(m_queue->Running(), ResolveQueue::kMaxRunning);
    EXPECT_TRUE(m_held.contains("0 anew"));

    m_whenHeard = [this](const std::string&) { m_queue.reset(); };
    Add("never");
    Answer("1");
    EXPECT_EQ(m_heard.back(), "1 host");
    EXPECT_THAT(m_held, IsEmpty());
}

} // namespace
