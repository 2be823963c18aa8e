#include "runtime/CTask.h"
#include "tests/support/LogCapture.h"
#include "tests/support/Watched.h"

#include <array>
#include <csignal>
#include <gtest/gtest.h>
#include <memory>
#include <pthread.h>
#include <stdexcept>

namespace
{

class Looker final : public CTask
{
public:
    Looker(Watched<bool>& released, Watched<bool>& destroyed)
        : CTask("A name of more than fifteen bytes", false, CTask::NOT_REALTIME, -1)
        , m_released(released)
        , m_destroyed(destroyed)
    {
    }
    ~Looker() override
    {
        m_destroyed.Set(true);
    }

private:
    void Body() override
    {
        EXPECT_TRUE(m_released.WaitFor(true));
        EXPECT_FALSE(m_destroyed.Get()) << "with its owner's last reference";
        std::array<char, 32> name{};
        pthread_getname_np(pthread_self(), name.data(), name.size());
        EXPECT_STREQ(name.data(), "A name of more ");
        sigset_t blocked;
        pthread_sigmask(SIG_BLOCK, nullptr, &blocked);
        EXPECT_TRUE(sigismember(&blocked, SIGTERM) && sigismember(&blocked, SIGPIPE));
        EXPECT_FALSE(sigismember(&blocked, SIGSEGV) || sigismember(&blocked, SIGABRT));
        throw std::runtime_error("out of the body");
    }

    Watched<bool>& m_released;
    Watched<bool>& m_destroyed;
};

TEST(CTask, LivesUntilItsBodyHasEndedAndTakesNoSignalsButFaults)
{
    const LogCapture log;
    Watched<bool> released;
    Watched<bool> destroyed;
    auto task = std::make_shared<Looker>(released, destroyed);
    task->Start();
    task.reset();
    released.Set(true);
    ASSERT_TRUE(destroyed.WaitFor(true));
    sigset_t own;
    pthread_sigmask(SIG_BLOCK, nullptr, &own);
    EXPECT_FALSE(sigismember(&own, SIGTERM)) << "blocked on the starter as well";
    EXPECT_TRUE(log.Contains("out of the body")) << log.Text();
}

} // namespace
