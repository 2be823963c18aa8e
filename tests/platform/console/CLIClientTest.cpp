#include <CLIClient.h>

#include "tests/support/LogCapture.h"
#include "tests/support/RealTask.h"
#include "tests/support/TempDirectory.h"
#include "tests/support/Watched.h"
#include "tools/clients/options/LocalSocket.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <future>
#include <list>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include <fcntl.h>
#include <sys/file.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

using testing::HasSubstr;
using testing::StartsWith;

namespace
{

/// A client of the console's socket that sends any bytes.
class RawConsole
{
public:
    explicit RawConsole(const std::string& path)
        : m_socket(path)
    {
        const timeval limit{10, 0};
        if (!m_socket.Open() ||
            ::setsockopt(m_socket.Descriptor(), SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof(limit)) != 0)
        {
            throw std::runtime_error("no service at " + path);
        }
    }
    void Send(const std::string& bytes)
    {
        m_socket.Send(bytes);
    }

    /// Sends repeatedly until the socket would block.
    void SendUntilFull(const std::string& bytes) const
    {
        while (::send(m_socket.Descriptor(), bytes.data(), bytes.size(), MSG_NOSIGNAL | MSG_DONTWAIT) > 0)
        {
        }
    }
    void CloseSending() const
    {
        ::shutdown(m_socket.Descriptor(), SHUT_WR);
    }
    /// Returns the next line; nothing at the end of the stream and after 10 s.
    std::optional<std::string> Line()
    {
        std::size_t end = 0;
        while ((end = m_read.find('\n')) == std::string::npos)
        {
            if (!m_socket.Receive(m_read))
            {
                return std::nullopt;
            }
        }
        std::string line = m_read.substr(0, end);
        m_read.erase(0, end + 1);
        return line;
    }
    std::string Request(const std::string& line)
    {
        Send(line + '\n');
        return Line().value_or("nothing");
    }
    std::string Run(const std::string& command)
    {
        return Request(R"({"command":")" + command + R"("})");
    }

private:
    LocalSocket m_socket;
    std::string m_read;
};

/// A console with five commands that echo their arguments.
class CLIClientTest : public testing::Test
{
protected:
    CLIClientTest()
    {
        ::setenv("SONARIX_RUN_DIR", m_directory.Path().c_str(), 1);
    }
    ~CLIClientTest() override
    {
        m_client.reset();
        m_task.StopAndJoin();
        ::unsetenv("SONARIX_RUN_DIR");
    }

    void Open()
    {
        m_client = std::make_unique<CLIClient>("echo");
        CLIClient::Descriptors commands;
        for (const char* command : {"lamp", "lamp on", "lamp on slowly", "large", "fail"})
        {
            commands.push_back(
                std::make_shared<CLIClient::CLICmdDescriptor>(command, "help \"x\"", std::string(command) + " WORD"));
        }
        m_client->Initialize(m_task.Get(), commands,
                             [this](const std::string& command, const std::list<std::string>& arguments,
                                    std::string& response) { return Handle(command, arguments, response); });
        m_task.Drain();
    }
    bool Handle(const std::string& command, const std::list<std::string>& arguments, std::string& response) const
    {
        EXPECT_TRUE(m_task.Get()->IsCurrent());
        if (command == "fail")
        {
            throw std::runtime_error("lamp broken\xFF");
        }
        response = command == "large" ? std::string(std::size_t{4} << 20U, 'x') : command;
        for (const std::string& argument : arguments)
        {
            response += '[' + argument + ']';
        }
        return arguments.empty() || arguments.front() != "refuse";
    }
    std::string Path() const
    {
        return m_directory.Path() + "/console";
    }
    static std::string Response(const std::string& response)
    {
        return R"({"ok":true,"response":")" + response + R"("})";
    }
    static std::string Error(const std::string& response)
    {
        return R"({"ok":false,"response":")" + response + R"("})";
    }

    const TempDirectory m_directory;
    LogCapture m_log{"4"};
    const RealTask m_task{"ConsoleTest"};
    std::unique_ptr<CLIClient> m_client;
};

} // namespace

TEST_F(CLIClientTest, LongestCommandRunsWithTheRestAsArguments)
{
    Open();
    RawConsole client(Path());
    EXPECT_EQ(client.Run("lamp"), Response("lamp"));
    EXPECT_EQ(client.Run("  LAMP\\tOn   slow "), Response("LAMP On[slow]"));
    EXPECT_EQ(client.Run("lamp on slowly"), Response("lamp on slowly"));
    EXPECT_EQ(client.Run("lamp a=\\\"b  c\\\"d \\\"\\\" \\\"\\\\\\\"\\\\\\\\\\\""),
              Response("lamp[a=b  cd][][\\\"\\\\]"));
    EXPECT_EQ(client.Run("lamp refuse"), Error("lamp[refuse]"));
    EXPECT_EQ(client.Run("fail"), Error("fail failed: lamp broken\uFFFD"));
    EXPECT_EQ(client.Run("lam"), Error("unknown command: lam"));
    EXPECT_EQ(client.Run(""), Error("no command"));
    EXPECT_EQ(client.Request(R"({"help":"lamp o"})"),
              R"({"ok":true,"response":"","commands":[)"
              R"({"command":"lamp on","help":"help \"x\"","usage":"lamp on WORD"},)"
              R"({"command":"lamp on slowly","help":"help \"x\"","usage":"lamp on slowly WORD"}]})");
    EXPECT_EQ(client.Request(R"({"help":"nothing"})"), R"({"ok":true,"response":"","commands":[]})");
}

TEST_F(CLIClientTest, InvalidLineGetsOneError)
{
    Open();
    RawConsole bad(Path());
    const std::string lines[] = {
        "",
        "x",
        "[]",
        "{}",
        "{\"command\":",
        R"({"command":1})",
        R"({"command":"lamp","help":""})",
        R"({"help":{}})",
        "{\"command\":\"lamp\xFF\"}",
        R"({"command":"\ud800"})",
        R"({"command":"lamp \"on"})",
        R"({"command":"lamp\non"})",
        R"({"command":"lamp"} {})",
        std::string("{\0}", 3),
        std::string(60'000, '['),
    };
    for (const std::string& line : lines)
    {
        EXPECT_THAT(bad.Request(line), StartsWith(R"({"ok":false,"response":")")) << line;
    }
    const std::string large(std::size_t{1} << 20U, 'x');
    EXPECT_EQ(bad.Request(large), Error("a line of more than 65536 bytes"));
    EXPECT_EQ(bad.Request(R"({"command":"lamp"})" + std::string(65'518, ' ')), Response("lamp"));
}

TEST_F(CLIClientTest, LastLineWithoutItsEndIsNotExecuted)
{
    Open();
    RawConsole bad(Path());
    bad.Send(R"({"command":"lamp on"})"
             "\n"
             R"({"command":"lamp"})");
    bad.CloseSending();
    EXPECT_EQ(bad.Line(), Response("lamp on"));
    EXPECT_EQ(bad.Line(), Error("a line without its end"));
    EXPECT_EQ(bad.Line(), std::nullopt);
}

TEST_F(CLIClientTest, ClientsAreLimitedAndNeedNotRead)
{
    Open();
    {
        std::vector<std::unique_ptr<RawConsole>> clients;
        for (int at = 0; at < 100; ++at)
        {
            clients.push_back(std::make_unique<RawConsole>(Path()));
        }
        for (std::size_t at = 0; at < clients.size(); ++at)
        {
            EXPECT_EQ(clients[at]->Run("lamp"), at < 16 ? Response("lamp") : Error("too many consoles: 16 are open"))
                << at;
        }
    }
    EXPECT_EQ(m_log.Count(DPrint::LEVEL_WARNING), 1U) << m_log.Text();
    // The server accepts new consoles when the task has processed all disconnections.
    for (int at = 0; at < 16; ++at)
    {
        EXPECT_TRUE(m_log.WaitFor("has gone")) << m_log.Text();
    }
    std::unique_ptr<RawConsole> silent;
    std::unique_ptr<RawConsole> good;
    for (int attempt = 0; attempt < 100 && !good; ++attempt)
    {
        m_task.Drain();
        silent = std::make_unique<RawConsole>(Path());
        good = std::make_unique<RawConsole>(Path());
        if (good->Run("lamp") != Response("lamp"))
        {
            good.reset();
        }
    }
    ASSERT_TRUE(good);

    silent->SendUntilFull(R"({"command":"large"})"
                          "\n");
    EXPECT_EQ(good->Run("lamp"), Response("lamp"));
    const std::string text(std::size_t{256} << 10U, 'a');
    for (int at = 0; at < 8; ++at)
    {
        m_client->SendAsyncResponse(text);
        EXPECT_EQ(good->Line(), R"({"async":")" + text + R"("})");
    }
    EXPECT_TRUE(m_log.WaitFor("it does not read"));
    EXPECT_EQ(good->Run("lamp"), Response("lamp"));
}

TEST_F(CLIClientTest, SocketInUseIsKeptAndFileHasMode0600)
{
    Open();
    struct stat status = {};
    ASSERT_EQ(::lstat(Path().c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 07777U, 0600U);

    auto second = std::make_unique<CLIClient>("second");
    second->Initialize(m_task.Get(), {}, {});
    m_task.Drain();
    EXPECT_TRUE(m_log.Contains("second has no debug console: ")) << m_log.Text();
    second.reset();
    m_task.Drain();
    EXPECT_EQ(RawConsole(Path()).Run("lamp"), Response("lamp"));

    m_client.reset();
    m_task.Drain();
    EXPECT_FALSE(std::filesystem::exists(Path())) << "removed with the client";

    const int lock = ::open(m_directory.Path().c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    ASSERT_EQ(::flock(lock, LOCK_EX), 0) << "a lock by another process must not block the task for good";
    Open();
    ::close(lock);
    EXPECT_EQ(RawConsole(Path()).Run("lamp"), Response("lamp"));
}

TEST_F(CLIClientTest, DestructorWaitsForTheRunningCommand)
{
    m_client = std::make_unique<CLIClient>("slow");
    Watched<int> calls;
    std::promise<void> proceed;
    const auto command = std::make_shared<CLIClient::CLICmdDescriptor>("wait", "", "");
    m_client->Initialize(
        m_task.Get(), {command},
        [&, over = proceed.get_future().share()](const std::string&, const std::list<std::string>&, std::string&)
        {
            calls.Change([](int& count) { ++count; });
            over.wait();
            return true;
        });
    m_task.Drain();
    RawConsole client(Path());
    client.Send(R"({"command":"wait"})"
                "\n"
                R"({"command":"wait"})"
                "\n");
    ASSERT_TRUE(calls.WaitFor(1));
    auto end = std::async(std::launch::async, [this] { m_client.reset(); });
    EXPECT_EQ(end.wait_for(std::chrono::milliseconds(50)), std::future_status::timeout);
    proceed.set_value();
    end.wait();
    while (client.Line())
    {
    }
    m_task.Drain();
    EXPECT_EQ(calls.Get(), 1) << "the second command must not start";
}

TEST_F(CLIClientTest, ConsoleClosesWhenItsTaskStops)
{
    Open();
    RawConsole other(Path());
    EXPECT_EQ(other.Run("lamp"), Response("lamp"));
    m_task.StopAndJoin();
    EXPECT_EQ(other.Line(), std::nullopt);
    EXPECT_FALSE(std::filesystem::exists(Path()));
    m_client->SendAsyncResponse("late");
}

TEST_F(CLIClientTest, StoppedTaskClosesConsoleAfterClientEnd)
{
    Open();
    RawConsole client(Path());
    EXPECT_EQ(client.Run("lamp"), Response("lamp"));
    std::promise<void> isBlocked;
    std::promise<void> proceed;
    IL::BreakThread(
        [&]
        {
            isBlocked.set_value();
            proceed.get_future().wait();
        },
        m_task.Get());
    isBlocked.get_future().wait();
    IL::StopTask(m_task.Get());
    m_client.reset();
    EXPECT_TRUE(std::filesystem::exists(Path())) << "the task is still blocked";
    proceed.set_value();
    EXPECT_EQ(client.Line(), std::nullopt);
    m_task.StopAndJoin();
    EXPECT_FALSE(std::filesystem::exists(Path()));
}
