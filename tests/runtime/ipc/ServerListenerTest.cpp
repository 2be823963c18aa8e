#include "runtime/ipc/IPCDirectory.h"
#include "tests/ipc/support/RouterService.h"
#include "tests/ipc/support/SocketClient.h"
#include "tests/support/ForkedRun.h"
#include "tests/support/LogCapture.h"

#include <gtest/gtest.h>

#include <array>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <list>
#include <malloc.h>
#include <memory>
#include <sys/resource.h>
#include <thread>
#include <vector>

namespace
{

std::size_t Entries(const char* directory)
{
    const auto entries = std::filesystem::directory_iterator(directory);
    return static_cast<std::size_t>(std::distance(begin(entries), end(entries)));
}

/// A socket file without a listening process.
void CreateStaleSocketFile(const std::string& path)
{
    const int socket = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const sockaddr_un address = SocketClient::AddressOf(path);
    ASSERT_EQ(::bind(socket, reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
    ::close(socket);
}

bool IsAnswered(SocketClient& client)
{
    client.Request(1, 1, SonarixPb::ServiceId());
    return client.Read().has_value();
}

} // namespace

TEST(ServerListenerTest, StaleSocketFileIsReplacedButNoOtherFile)
{
    const LogCapture log;
    const TempDirectory directory;
    const RealTask task;
    const AsyncCallback<std::shared_ptr<Network::ConnectorSocket>> ignore(
        [](const std::shared_ptr<Network::ConnectorSocket>&) {}, task.Get());
    const auto listenOn = [&](const std::string& path)
    {
        auto listener = IL::CreateServerListener("Listener", task.Get());
        return listener->Listen(Network::Address(path), ignore) ? listener : nullptr;
    };

    const std::string path = directory.Path() + "/socket";
    CreateStaleSocketFile(path);
    const auto first = listenOn(path);
    ASSERT_TRUE(first);
    const std::filesystem::file_status status = std::filesystem::symlink_status(path);
    EXPECT_EQ(status.type(), std::filesystem::file_type::socket);
    EXPECT_EQ(status.permissions(), std::filesystem::perms(0660));
    EXPECT_FALSE(listenOn(path)) << "another listener uses the file";
    EXPECT_NO_THROW(SocketClient client(path));
    EXPECT_EQ(log.Count(DPrint::LEVEL_ERROR), 1u) << log.Text();
    first->Stop();
    first->Stop();
    EXPECT_FALSE(std::filesystem::exists(path)) << "Stop() removes the file";

    std::ofstream(path) << "text";
    EXPECT_FALSE(listenOn(path));
    EXPECT_TRUE(std::filesystem::is_regular_file(path));
    EXPECT_FALSE(listenOn(directory.Path() + "/missing/socket"));
    EXPECT_FALSE(listenOn(directory.Path() + '/' + std::string(100, 'l')));
    EXPECT_FALSE(listenOn(""));
    EXPECT_EQ(log.Count(DPrint::LEVEL_ERROR), 5u) << log.Text();

    IL::CreateServerListener("Listener", task.Get())->Stop(); // before Listen()
    ::setenv("SONARIX_RUN_DIR", "/tmp/run", 1);
    EXPECT_EQ(IPCDirectory::Get()->Lookup("SonarixMdnsService").ToString(), "/tmp/run/SonarixMdnsService");
    ::unsetenv("SONARIX_RUN_DIR");
}

TEST(ServerListenerTest, StaleSocketFileIsReplacedByOneOfManyListeners)
{
    const LogCapture log("0");
    const TempDirectory directory;
    const RealTask task;
    for (int round = 0; round < 20; ++round)
    {
        const std::string path = directory.Path() + "/socket" + std::to_string(round);
        CreateStaleSocketFile(path);
        std::atomic<int> bound = 0;
        std::vector<std::shared_ptr<IL::ServerListenerIF>> listeners(4);
        std::vector<std::jthread> threads;
        for (auto& listener : listeners)
        {
            listener = IL::CreateServerListener("Listener", task.Get());
            threads.emplace_back(
                [&]
                {
                    bound += static_cast<bool>(
                        listener->Listen(Network::Address(path),
                                         AsyncCallback<std::shared_ptr<Network::ConnectorSocket>>({}, task.Get())));
                });
        }
        threads.clear(); // joins them
        EXPECT_EQ(bound, 1);
        EXPECT_NO_THROW(SocketClient client(path));
    }
}

TEST(ServerListenerTest, TenThousandConnectionsLeakNothing)
{
    const LogCapture log("1");
    RouterService service;
    const auto serve = [&service](int count)
    {
        for (int round = 0; round < count; ++round)
        {
            SocketClient client(service.path);
            if (round % 3 == 0)
            {
                EXPECT_TRUE(IsAnswered(client));
            }
            else if (round % 3 == 1)
            {
                client.Request(1, 1, SonarixPb::ServiceId()); // disconnects before the response
            }
        }
        SocketClient last(service.path);
        EXPECT_TRUE(IsAnswered(last));
        service.AwaitClients(1);
        service.Task().Drain();
        return std::array{Entries("/proc/self/fd"), Entries("/proc/self/task"), ::mallinfo2().uordblks};
    };
    const auto [descriptors, threads, bytes] = serve(1000);
    const auto after = serve(9000);
    EXPECT_EQ(after[0], descriptors);
    EXPECT_EQ(after[1], threads);
    EXPECT_LT(after[2], bytes + 20'000) << "two bytes per connection";
    EXPECT_EQ(log.Text(), "");
}

TEST(ServerListenerTest, AcceptingPausesWithoutDescriptorsAndComesBack)
{
#if defined(__SANITIZE_ADDRESS__)
    GTEST_SKIP() << "this build looks at objects through a pipe, and takes them for wild where none can be made";
#endif
    const ForkedResult result = RunForked(
        []
        {
            const LogCapture log;
            std::vector<int> sockets;
            do // leaves some for the service, and fewer than one for each
            {
                sockets.push_back(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
            } while (sockets.back() < 50);
            const rlimit limit{64, 64};
            EXPECT_EQ(::setrlimit(RLIMIT_NOFILE, &limit), 0);
            RouterService service;
            const sockaddr_un address = SocketClient::AddressOf(service.path);
            std::list<SocketClient> clients;
            for (const int socket : sockets)
            {
                EXPECT_EQ(::connect(socket, reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
                clients.emplace_back(socket);
            }
            EXPECT_TRUE(log.WaitFor("accepting pauses: Too many open files")) << log.Text();
            EXPECT_TRUE(IsAnswered(clients.front())) << "who is there already goes on";

            const std::clock_t before = std::clock();
            std::this_thread::sleep_for(std::chrono::milliseconds(600)); // two more pauses at least
            EXPECT_LT(std::clock() - before, CLOCKS_PER_SEC / 10) << "no spinning";
            EXPECT_LT(service.clients.Get(), sockets.size());

            // Each that goes frees two.
            clients.erase(clients.begin(), std::next(clients.begin(), static_cast<std::ptrdiff_t>(sockets.size() / 2)));
            for (SocketClient& client : clients)
            {
                EXPECT_TRUE(IsAnswered(client));
            }
            EXPECT_EQ(log.Count(DPrint::LEVEL_WARNING), 1u) << log.Text();
            return testing::Test::HasFailure() ? 1 : 0;
        });
    EXPECT_TRUE(result.Succeeded()) << result.HowItEnded() << '\n' << result.m_output;
}
