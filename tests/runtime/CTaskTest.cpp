#include "CTask.h"
#include "LogCapture.h"
#include "Watched.h"

#include <array>
#include <csignal>
#include <gtest/gtest.h>
#include <memory>
#include <pthread.h>
#include <stdexcept>
#include <string>

namespace
{

struct Seen
{
    std::string m_name;
    sigset_t m_blocked{};
    bool m_ownerGone = false;
    bool m_destroyed = false;
};

class Looker final : public CTask
{
public:
    explicit Looker(Watched<Seen>& seen, Watched<bool>& released)
        : CTask("A name of more than fifteen bytes", false, CTask::NOT_REALTIME, -1)
        , m_seen(seen)
        , m_released(released)
    {
    }
    ~Looker() override
    {
        m_seen.Change([](Seen& seen) { seen.m_destroyed = true; });
    }

private:
    void Body() override
    {
        const bool ownerGone = m_released.WaitFor(true);
        std::array<char, 32> name{};
        pthread_getname_np(pthread_self(), name.data(), name.size());
        m_seen.Change(
            [&](Seen& seen)
            {
                seen.m_name = name.data();
                seen.m_ownerGone = ownerGone && !seen.m_destroyed;
                pthread_sigmask(SIG_BLOCK, nullptr, &seen.m_blocked);
            });
        throw std::runtime_error("out of the body");
    }

    Watched<Seen>& m_seen;
    Watched<bool>& m_released;
};

TEST(CTask, LivesUntilItsBodyHasEndedAndTakesNoSignalsButFaults)
{
    const LogCapture log;
    Watched<Seen> seen;
    Watched<bool> released(false);
    auto task = std::make_shared<Looker>(seen, released);
    task->Start();
    task.reset();
    released.Set(true);
    ASSERT_TRUE(seen.WaitUntil([](const Seen& now) { return now.m_destroyed; }));
    const Seen all = seen.Get();
    EXPECT_TRUE(all.m_ownerGone);
    EXPECT_EQ(all.m_name, "A name of more ");
    EXPECT_TRUE(sigismember(&all.m_blocked, SIGTERM) && sigismember(&all.m_blocked, SIGPIPE));
    EXPECT_FALSE(sigismember(&all.m_blocked, SIGSEGV) || sigismember(&all.m_blocked, SIGABRT));
    sigset_t own;
    pthread_sigmask(SIG_BLOCK, nullptr, &own);
    EXPECT_FALSE(sigismember(&own, SIGTERM)) << "blocked on the starter as well";
    EXPECT_TRUE(log.Contains("out of the body")) << log.Text();
}

} // namespace
