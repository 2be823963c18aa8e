#include "runtime/Liveness.h"

#include "runtime/engine/Simulation.h"

#include <gtest/gtest.h>

#include <optional>
#include <vector>

namespace
{

/// Provides a callback for each form of Liveness. A call is recorded in `calls`.
class Owner
{
public:
    Owner(NotifyTargetTaskIF* task, std::vector<int>& calls)
        : m_guarded(m_liveness.Guard([&calls](int value) { calls.push_back(value); }))
        , m_posted(m_liveness.OnTask<int>(task, [&calls](int value) { calls.push_back(value); }))
        , m_method(m_liveness.OnTask(task, this, &Owner::Record))
        , m_calls(&calls)
    {
    }

    void Record(const int& value)
    {
        m_calls->push_back(value);
    }

private:
    Liveness m_liveness;

public:
    const Callback<int> m_guarded;
    const AsyncCallback<int> m_posted;
    const AsyncCallback<int> m_method;

private:
    std::vector<int>* m_calls;
};

TEST(LivenessTest, PendingCallbacksDoNotRunAfterDestruction)
{
    IL::Simulation simulation(1);
    NotifyTargetTaskIF* const task = IL::CreateTask("Task", "");
    std::vector<int> calls;
    std::optional<Owner> owner(std::in_place, task, calls);
    const Callback<int> guarded = owner->m_guarded;
    const AsyncCallback<int> posted = owner->m_posted;
    const AsyncCallback<int> method = owner->m_method;
    const auto callAll = [&]
    {
        guarded(1);
        posted(2);
        method(3);
    };
    callAll();
    simulation.RunUntilIdle();
    EXPECT_EQ(calls, (std::vector{1, 2, 3}));

    posted(4); // pending at the destruction
    method(5);
    owner.reset();
    callAll();
    simulation.RunFor(std::chrono::hours(1));
    EXPECT_EQ(calls.size(), 3u);
}

TEST(LivenessTest, WeaklyHoldsTheObjectDuringTheCallOnly)
{
    std::vector<int> calls;
    auto owner = std::make_shared<Owner>(nullptr, calls);
    const std::weak_ptr<Owner> weak = owner;
    const Callback<int> callback = Liveness::Weakly(owner,
                                                    [&owner](Owner& held, int value)
                                                    {
                                                        owner.reset();
                                                        held.Record(value);
                                                    });
    callback(1);
    EXPECT_EQ(calls, std::vector{1});
    EXPECT_TRUE(weak.expired());
    callback(2);
    EXPECT_EQ(calls.size(), 1u);
}

} // namespace
