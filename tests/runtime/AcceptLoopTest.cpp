#include "runtime/AcceptLoop.h"

#include "tests/support/Inbox.h"
#include "tests/support/LogCapture.h"
#include "tests/support/RealTask.h"

#include <gtest/gtest.h>

#include <ctime>
#include <fcntl.h>
#include <optional>
#include <stdexcept>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>
#include <vector>

namespace
{

int NewSocket(int flags)
{
    return ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | flags, 0);
}

/// An AcceptLoop on a task, listening on a name that the kernel chose.
class AcceptLoopTest : public testing::Test
{
protected:
    AcceptLoopTest()
    {
        const int listening = NewSocket(SOCK_NONBLOCK);
        m_address.sun_family = AF_UNIX;
        EXPECT_EQ(::bind(listening, Address(), sizeof(sa_family_t)), 0); // Linux chooses an abstract name: unix(7)
        EXPECT_EQ(::getsockname(listening, reinterpret_cast<sockaddr*>(&m_address), &m_addressSize), 0);
        EXPECT_EQ(::listen(listening, SOMAXCONN), 0);
        m_loop.emplace(m_task.Get(), "Listener", "console", [this](int descriptor) { OnAccepted(descriptor); });
        EXPECT_EQ(m_loop->Start(listening), "");
    }
    ~AcceptLoopTest() override
    {
        m_task.Run([this] { m_loop.reset(); });
        m_task.StopAndJoin();
        for (const int descriptor : m_clients)
        {
            ::close(descriptor);
        }
    }

    const sockaddr* Address() const
    {
        return reinterpret_cast<const sockaddr*>(&m_address);
    }

    bool Connect()
    {
        m_clients.push_back(NewSocket(0));
        return ::connect(m_clients.back(), Address(), m_addressSize) == 0;
    }

    void OnAccepted(int descriptor)
    {
        EXPECT_TRUE(m_task.Get()->IsCurrent());
        EXPECT_TRUE(::fcntl(descriptor, F_GETFL) & O_NONBLOCK);
        EXPECT_TRUE(::fcntl(descriptor, F_GETFD) & FD_CLOEXEC);
        ::close(descriptor);
        if (m_atAccepted)
        {
            m_atAccepted();
        }
        m_accepted.Put(descriptor);
    }

    LogCapture m_log;
    RealTask m_task;
    std::function<void()> m_atAccepted;
    Inbox<int> m_accepted;
    std::optional<IL::AcceptLoop> m_loop;
    std::vector<int> m_clients;

private:
    sockaddr_un m_address{};
    socklen_t m_addressSize = sizeof m_address;
};

TEST_F(AcceptLoopTest, GoesOnWhenDescriptorsAreFreeAgain)
{
    EXPECT_TRUE(Connect() && m_accepted.Take()); // what a sanitizer checks at a first use needs descriptors
    rlimit before = {};
    ASSERT_EQ(::getrlimit(RLIMIT_NOFILE, &before), 0);
    const int next = ::dup(0); // the lowest free one
    ::close(next);
    rlimit tight = before;
    tight.rlim_cur = static_cast<rlim_t>(next) + 1; // enough for the client's end, none for ours
    ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &tight), 0);
    EXPECT_TRUE(Connect());
    EXPECT_TRUE(m_log.WaitFor("console: accepting pauses: Too many open files"));
    const std::clock_t start = std::clock();
    EXPECT_FALSE(m_accepted.Take(std::chrono::milliseconds(600))); // two more tries
    EXPECT_LT(std::clock() - start, CLOCKS_PER_SEC / 10) << "busy loop";
    ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &before), 0);
    EXPECT_TRUE(m_accepted.Take());
    EXPECT_TRUE(Connect() && m_accepted.Take());
    EXPECT_EQ(m_log.Count(DPrint::LEVEL_WARNING), 1u) << m_log.Text();
}

TEST_F(AcceptLoopTest, LeavesConnectionsInTheQueueWhileSuspended)
{
    m_atAccepted = [this] { m_loop->Suspend(); };
    for (int count = 0; count < 3; ++count)
    {
        EXPECT_TRUE(Connect());
    }
    for (int count = 0; count < 3; ++count)
    {
        EXPECT_TRUE(m_accepted.Take());
        m_task.Drain();
        EXPECT_TRUE(m_accepted.IsEmpty());
        m_task.Run([this] { m_loop->Resume(); });
    }
}

TEST_F(AcceptLoopTest, GoesOnAfterAnExceptionOfItsCallback)
{
    m_atAccepted = [this]
    {
        m_atAccepted = nullptr;
        throw std::runtime_error("no memory for a client");
    };
    EXPECT_TRUE(Connect() && Connect());
    EXPECT_TRUE(m_accepted.Take());
    EXPECT_TRUE(m_log.WaitFor("no memory for a client"));
}

TEST_F(AcceptLoopTest, MayBeDestroyedByItsCallback)
{
    m_atAccepted = [this] { m_loop.reset(); };
    m_task.Stall(
        [this]
        {
            EXPECT_TRUE(Connect());
            EXPECT_TRUE(Connect());
        });
    EXPECT_TRUE(m_accepted.Take());
    m_task.Drain();
    EXPECT_TRUE(m_accepted.IsEmpty());
    EXPECT_FALSE(Connect());
}

TEST_F(AcceptLoopTest, ClosesItsSocketWhenDestroyedElsewhere)
{
    m_loop.reset();
    m_task.Drain();
    EXPECT_FALSE(Connect());
    EXPECT_TRUE(m_accepted.IsEmpty());
}

} // namespace
