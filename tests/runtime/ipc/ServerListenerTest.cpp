#include "runtime/ipc/IPCDirectory.h"
#include "tests/ipc/support/RouterService.h"
#include "tests/ipc/support/SocketClient.h"
#include "tests/support/LogCapture.h"

#include <gtest/gtest.h>

#include <array>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <malloc.h>
#include <memory>
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
