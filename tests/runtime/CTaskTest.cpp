#include "runtime/CTask.h"
#include "runtime/engine/Thread.h"
#include "tests/support/LogCapture.h"
#include "tests/support/RealTask.h"
#include "tests/support/Watched.h"

#include <array>
#include <gtest/gtest.h>
#include <memory>
#include <pthread.h>
#include <stdexcept>

namespace
{

std::string NameOfThisThread()
{
    std::array<char, 32> name{};
    pthread_getname_np(pthread_self(), name.data(), name.size());
    return name.data();
}

class ThrowingTask final : public CTask
{
public:
    ThrowingTask(Watched<bool>& released, Watched<bool>& destroyed)
        : CTask("A name of more than fifteen bytes", false, CTask::NOT_REALTIME, -1)
        , m_released(released)
        , m_destroyed(destroyed)
    {
    }
    ~ThrowingTask() override
    {
        m_destroyed.Set(true);
    }

private:
    void Body() override
    {
        EXPECT_TRUE(m_released.WaitFor(true));
        EXPECT_FALSE(m_destroyed.Get()) << "destroyed with its owner's last reference";
        EXPECT_EQ(NameOfThisThread(), "A nam~een bytes");
        throw std::runtime_error("out of the body");
    }

    Watched<bool>& m_released;
    Watched<bool>& m_destroyed;
};

TEST(CTask, ExistsUntilItsBodyHasEnded)
{
    const LogCapture log;
    Watched<bool> released;
    Watched<bool> destroyed;
    auto task = std::make_shared<ThrowingTask>(released, destroyed);
    task->Start();
    task.reset();
    released.Set(true);
    ASSERT_TRUE(destroyed.WaitFor(true));
    EXPECT_TRUE(log.Contains("out of the body")) << log.Text();
}

TEST(ThreadName, ShowsBothEndsOfALongTaskName)
{
    using IL::ThreadNameFromTaskName;
    EXPECT_EQ(ThreadNameFromTaskName("DiscoveryServiceControllerTask"), "Disco~ontroller");
    EXPECT_EQ(ThreadNameFromTaskName("DiscoveryServiceIPCServerTask"), "Disco~IPCServer");
    EXPECT_EQ(ThreadNameFromTaskName("SsdpDiscoveryProtocolTask"), "SsdpD~yProtocol");
    EXPECT_EQ(ThreadNameFromTaskName("SsdpDiscoveryTask"), "SsdpDiscovery");
    EXPECT_EQ(ThreadNameFromTaskName("FifteenByteTask"), "FifteenByteTask");
    EXPECT_EQ(ThreadNameFromTaskName("FifteenAndMoreTask"), "FifteenAndMore");
    EXPECT_EQ(ThreadNameFromTaskName(""), "");
    const RealTask task("MdnsDiscoveryProtocolTask");
    task.Run([] { EXPECT_EQ(NameOfThisThread(), "MdnsD~yProtocol"); });
}

} // namespace
