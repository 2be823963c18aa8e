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
#include <random>
#include <stdexcept>
#include <string>
#include <vector>

#include <fcntl.h>
#include <sys/file.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

using testing::HasSubstr;
using testing::StartsWith;

namespace
{

/// A person's end of the socket, byte by byte.
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
            throw std::runtime_error("nobody at " + path);
        }
    }
    void Send(const std::string& bytes)
    {
        m_socket.Send(bytes);
    }

    /// As much as the socket takes without waiting.
    void SendUntilFull(const std::string& bytes) const
    {
        while (::send(m_socket.Descriptor(), bytes.data(), bytes.size(), MSG_NOSIGNAL | MSG_DONTWAIT) > 0)
        {
        }
    }
    void SendNoMore() const
    {
        ::shutdown(m_socket.Descriptor(), SHUT_WR);
    }
    /// Nothing at the end, or after ten seconds.
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
    std::string Ask(const std::string& line)
    {
        Send(line + '\n');
        return Line().value_or("nothing");
    }
    std::string Run(const std::string& command)
    {
        return Ask(R"({"command":")" + command + R"("})");
    }

private:
    LocalSocket m_socket;
    std::string m_read;
};

/// A service of five commands, which echoes its arguments.
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
    static std::string Answer(const std::string& response)
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

TEST_F(CLIClientTest, LongestCommandIsTakenAndTheRestAreItsArguments)
{
    Open();
    RawConsole person(Path());
    EXPECT_EQ(person.Run("lamp"), Answer("lamp"));
    EXPECT_EQ(person.Run("  LAMP\\tOn   slow "), Answer("LAMP On[slow]"));
    EXPECT_EQ(person.Run("lamp on slowly"), Answer("lamp on slowly"));
    EXPECT_EQ(person.Run("lamp a=\\\"b  c\\\"d \\\"\\\" \\\"\\\\\\\"\\\\\\\\\\\""),
              Answer("lamp[a=b  cd][][\\\"\\\\]"));
    EXPECT_EQ(person.Run("lamp refuse"), Error("lamp[refuse]"));
    EXPECT_EQ(person.Run("fail"), Error("fail failed: lamp broken\uFFFD"));
    EXPECT_EQ(person.Run("lam"), Error("unknown command: lam"));
    EXPECT_EQ(person.Run(""), Error("no command"));
    EXPECT_EQ(person.Ask(R"({"help":"lamp o"})"),
              R"({"ok":true,"response":"","commands":[)"
              R"({"command":"lamp on","help":"help \"x\"","usage":"lamp on WORD"},)"
              R"({"command":"lamp on slowly","help":"help \"x\"","usage":"lamp on slowly WORD"}]})");
    EXPECT_EQ(person.Ask(R"({"help":"nothing"})"), R"({"ok":true,"response":"","commands":[]})");
}

TEST_F(CLIClientTest, BadLinesGetOneErrorEachAndNobodyElseNotices)
{
    Open();
    RawConsole bad(Path());
    RawConsole good(Path());
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
        EXPECT_THAT(bad.Ask(line), StartsWith(R"({"ok":false,"response":")")) << line;
    }
    const std::string large(std::size_t{1} << 20U, 'x');
    EXPECT_EQ(bad.Ask(large), Error("a line of more than 65536 bytes"));
    EXPECT_EQ(bad.Ask(R"({"command":"lamp"})" + std::string(65'518, ' ')), Answer("lamp"));

    std::minstd_rand random(7);
    std::string bytes(100'000, '\0');
    std::size_t ends = 0;
    for (char& letter : bytes)
    {
        letter = static_cast<char>(random() >> 7U);
        ends += letter == '\n' ? 1U : 0U;
    }
    const auto sender = std::async(std::launch::async, [&] { bad.Send(bytes + "\n"); });
    for (std::size_t at = 0; at <= ends; ++at)
    {
        EXPECT_THAT(bad.Line().value_or("nothing"), StartsWith(R"({"ok":false)"));
    }
    sender.wait();
    EXPECT_EQ(bad.Run("lamp"), Answer("lamp"));

    // A line cut off is no command, whole though its text may be; those before it are answered all the same.
    bad.Send(R"({"command":"lamp on"})"
             "\n"
             R"({"command":"lamp"})");
    bad.SendNoMore();
    EXPECT_EQ(bad.Line(), Answer("lamp on"));
    EXPECT_EQ(bad.Line(), Error("a line without its end"));
    EXPECT_EQ(bad.Line(), std::nullopt);
    EXPECT_EQ(good.Run("lamp"), Answer("lamp"));
}

TEST_F(CLIClientTest, HundredConsolesAreSixteenAndOneThatNeverReadsCostsAnAnswer)
{
    Open();
    {
        std::vector<std::unique_ptr<RawConsole>> people;
        for (int at = 0; at < 100; ++at)
        {
            people.push_back(std::make_unique<RawConsole>(Path()));
        }
        for (std::size_t at = 0; at < people.size(); ++at)
        {
            EXPECT_EQ(people[at]->Run("lamp"), at < 16 ? Answer("lamp") : Error("too many consoles: 16 are open"))
                << at;
        }
    }
    EXPECT_EQ(m_log.Count(DPrint::LEVEL_WARNING), 1U) << m_log.Text();
    // Their places are free again as soon as the task has heard of their ends.
    for (int at = 0; at < 16; ++at)
    {
        EXPECT_TRUE(m_log.WaitFor("has gone")) << m_log.Text();
    }
    std::unique_ptr<RawConsole> mute;
    std::unique_ptr<RawConsole> good;
    for (int attempt = 0; attempt < 100 && !good; ++attempt)
    {
        m_task.Drain();
        mute = std::make_unique<RawConsole>(Path());
        good = std::make_unique<RawConsole>(Path());
        if (good->Run("lamp") != Answer("lamp"))
        {
            good.reset();
        }
    }
    ASSERT_TRUE(good);

    mute->SendUntilFull(R"({"command":"large"})"
                        "\n");
    EXPECT_EQ(good->Run("lamp"), Answer("lamp"));
    const std::string text(std::size_t{256} << 10U, 'a');
    for (int at = 0; at < 8; ++at)
    {
        m_client->SendAsyncResponse(text);
        EXPECT_EQ(good->Line(), R"({"async":")" + text + R"("})");
    }
    EXPECT_TRUE(m_log.WaitFor("it does not read"));
    EXPECT_EQ(good->Run("lamp"), Answer("lamp"));
}

TEST_F(CLIClientTest, LivingSocketIsNeverReplacedAndItsFileIsItsOwners)
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
    EXPECT_EQ(RawConsole(Path()).Run("lamp"), Answer("lamp"));

    m_client.reset();
    m_task.Drain();
    EXPECT_FALSE(std::filesystem::exists(Path())) << "removed at the end";

    const int stranger = ::open(m_directory.Path().c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    ASSERT_EQ(::flock(stranger, LOCK_EX), 0) << "who may read the folder does not hold up the task for good";
    Open();
    ::close(stranger);
    EXPECT_EQ(RawConsole(Path()).Run("lamp"), Answer("lamp"));
}

TEST_F(CLIClientTest, EndWaitsForTheCommandThatRunsAndNothingIsCalledAfterwards)
{
    m_client = std::make_unique<CLIClient>("slow");
    Watched<int> calls;
    std::promise<void> goOn;
    const auto command = std::make_shared<CLIClient::CLICmdDescriptor>("wait", "", "");
    m_client->Initialize(
        m_task.Get(), {command},
        [&, over = goOn.get_future().share()](const std::string&, const std::list<std::string>&, std::string&)
        {
            calls.Change([](int& count) { ++count; });
            over.wait();
            return true;
        });
    m_task.Drain();
    RawConsole person(Path());
    person.Send(R"({"command":"wait"})"
                "\n"
                R"({"command":"wait"})"
                "\n");
    ASSERT_TRUE(calls.WaitFor(1));
    auto end = std::async(std::launch::async, [this] { m_client.reset(); });
    EXPECT_EQ(end.wait_for(std::chrono::milliseconds(50)), std::future_status::timeout);
    goOn.set_value();
    end.wait();
    while (person.Line())
    {
    }
    m_task.Drain();
    EXPECT_EQ(calls.Get(), 1);

    // A task that stops takes the console along, and a client may outlive it.
    Open();
    RawConsole other(Path());
    EXPECT_EQ(other.Run("lamp"), Answer("lamp"));
    m_task.StopAndJoin();
    EXPECT_EQ(other.Line(), std::nullopt);
    EXPECT_FALSE(std::filesystem::exists(Path()));
    m_client->SendAsyncResponse("late");
}

TEST_F(CLIClientTest, ConsoleEndsOnItsTaskThoughTheClientGoesFirst)
{
    Open();
    RawConsole person(Path());
    EXPECT_EQ(person.Run("lamp"), Answer("lamp"));
    std::promise<void> isHeldUp;
    std::promise<void> goOn;
    IL::BreakThread(
        [&]
        {
            isHeldUp.set_value();
            goOn.get_future().wait();
        },
        m_task.Get());
    isHeldUp.get_future().wait();
    IL::StopTask(m_task.Get());
    m_client.reset();
    EXPECT_TRUE(std::filesystem::exists(Path())) << "the task still serves it";
    goOn.set_value();
    EXPECT_EQ(person.Line(), std::nullopt);
    m_task.StopAndJoin();
    EXPECT_FALSE(std::filesystem::exists(Path()));
}

TEST_F(CLIClientTest, AcceptingGoesOnWhenDescriptorsAreFreeAgain)
{
    Open();
    RawConsole first(Path());
    EXPECT_EQ(first.Run("lamp"), Answer("lamp"));
    rlimit before = {};
    ASSERT_EQ(::getrlimit(RLIMIT_NOFILE, &before), 0);
    const int next = ::dup(0); // the lowest free one
    ::close(next);
    rlimit tight = before;
    tight.rlim_cur = static_cast<rlim_t>(next) + 1; // enough for this end of a connection, none for the other
    ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &tight), 0);
    RawConsole second(Path());
    EXPECT_TRUE(m_log.WaitFor("no console can be opened for now"));
    EXPECT_EQ(first.Run("lamp"), Answer("lamp"));
    ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &before), 0);
    EXPECT_EQ(second.Run("lamp"), Answer("lamp"));
}
