// Measures the CPU time of the local sockets, compared with a bare Asio server that transfers the same bytes over Unix
// sockets in the same run:
//
//     build/release/bench/bench-ipc
//
// CPU time is that of this process; the clients run in another one. The two servers are measured alternately.
// Everything is pinned to one core: on two cores, the placement of client and server changes the results ten times more
// than the servers differ. Prints one line per figure, with name, value, unit and demand separated by tabs, for
// bench/run. The log is at level 1, so that log lines are not measured.

#include "bench/ipc/Clients.h"
#include "bench/publish/SampleProducts.h"
#include "ipc/DiscoveryServiceIPCServer.h"
#include "ipc/ProductConversion.h"
#include "runtime/DPrint.h"
#include "tests/fakes/FakeDiscovery.h"
#include "tests/ipc/support/RouterService.h"
#include "tests/ipc/support/SocketClient.h"
#include "tests/support/TempDirectory.h"

#include <boost/asio/buffer.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/local/stream_protocol.hpp>
#include <boost/asio/write.hpp>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <memory>
#include <sched.h>
#include <string>
#include <thread>
#include <vector>

namespace
{

namespace asio = boost::asio;
using Local = asio::local::stream_protocol;

constexpr int kTurns = 7;

/// Repeatedly reads `requestBytes` and writes `answerBytes`: an echo server if both are equal.
class BareServer final
{
public:
    explicit BareServer(const std::string& path)
        : m_acceptor(m_context, Local::endpoint(path))
    {
        Accept();
        m_thread = std::thread([this] { m_context.run(); });
    }
    ~BareServer()
    {
        m_context.stop();
        m_thread.join();
    }
    BareServer(const BareServer&) = delete;
    BareServer& operator=(const BareServer&) = delete;

    /// Sets the sizes of request and answer. To be called while no client is running.
    void Serve(std::size_t requestBytes, std::size_t answerBytes)
    {
        m_requestBytes = requestBytes;
        m_answer.assign(answerBytes, 'a');
    }

private:
    struct Connection
    {
        explicit Connection(Local::socket accepted)
            : socket(std::move(accepted))
        {
        }
        Local::socket socket;
        std::size_t read = 0;
        std::vector<char> buffer = std::vector<char>(4096);
    };

    void Accept()
    {
        m_acceptor.async_accept(
            [this](const boost::system::error_code& error, Local::socket socket)
            {
                if (!error)
                {
                    Read(std::make_shared<Connection>(std::move(socket)));
                    Accept();
                }
            });
    }
    void Read(const std::shared_ptr<Connection>& connection)
    {
        connection->socket.async_read_some(
            asio::buffer(connection->buffer),
            [this, connection](const boost::system::error_code& error, std::size_t count)
            {
                connection->read += count;
                if (error)
                {
                    return;
                }
                if (connection->read < m_requestBytes)
                {
                    Read(connection);
                    return;
                }
                connection->read -= m_requestBytes;
                asio::async_write(connection->socket, asio::buffer(m_answer),
                                  [this, connection](const boost::system::error_code& failed, std::size_t)
                                  {
                                      if (!failed)
                                      {
                                          Read(connection);
                                      }
                                  });
            });
    }

    asio::io_context m_context{1};
    Local::acceptor m_acceptor;
    std::atomic<std::size_t> m_requestBytes{1};
    std::string m_answer;
    std::thread m_thread;
};

struct Cost
{
    double cpu = 0;  ///< CPU seconds of this process
    double wall = 0; ///< elapsed seconds

    bool operator<(const Cost& other) const
    {
        return cpu < other.cpu;
    }
};

Cost Measure(const std::function<void()>& work)
{
    const double cpu = ProcessCpu(::getpid());
    const auto begin = std::chrono::steady_clock::now();
    work();
    return {ProcessCpu(::getpid()) - cpu,
            std::chrono::duration<double>(std::chrono::steady_clock::now() - begin).count()};
}

/// Runs both functions alternately and returns the medians of their costs.
std::pair<Cost, Cost> Compare(const std::function<void()>& ours, const std::function<void()>& bare)
{
    std::vector<Cost> costs;
    std::vector<Cost> bareCosts;
    for (int turn = -1; turn < kTurns; ++turn)
    {
        const Cost cost = Measure(ours);
        const Cost bareCost = Measure(bare);
        if (turn >= 0) // the first turn is a warm-up
        {
            costs.push_back(cost);
            bareCosts.push_back(bareCost);
        }
    }
    std::sort(costs.begin(), costs.end());
    std::sort(bareCosts.begin(), bareCosts.end());
    return {costs[kTurns / 2], bareCosts[kTurns / 2]};
}

void Print(const std::string& name, double value, const char* unit, const char* limit = "")
{
    std::printf("%s\t%.3g\t%s\t%s\n", name.c_str(), value, unit, limit);
    std::fflush(stdout);
}

/// The real server with fake discovery protocols.
struct World
{
    World()
    {
        ::setenv("SONARIX_RUN_DIR", directory.Path().c_str(), 1);
        controller->ssdp = ssdp;
        controller->mdns = std::make_shared<FakeMdnsDiscoveryProtocol>();
        server = std::make_shared<DiscoveryServiceIPCServer>(controller);
        server->Initialize();
        ssdpPath = directory.Path() + "/SonarixSsdpService";
        mdnsPath = directory.Path() + "/SonarixMdnsService";
        barePath = directory.Path() + "/bare";
    }
    ~World()
    {
        server->Shutdown();
    }
    World(const World&) = delete;
    World& operator=(const World&) = delete;

    using DiscoveryServiceIPCServer = SonarixService::DiscoveryServiceIPCServer;

    const TempDirectory directory;
    const std::shared_ptr<FakeSsdpDiscoveryProtocol> ssdp = std::make_shared<FakeSsdpDiscoveryProtocol>();
    const std::shared_ptr<FakeController> controller = std::make_shared<FakeController>();
    std::shared_ptr<DiscoveryServiceIPCServer> server;
    std::string ssdpPath;
    std::string mdnsPath;
    std::string barePath;
};

void CompareTrips(const std::string& name, Clients& clients, const std::string& path, const std::string& request,
                  BareServer& bare, const std::string& barePath, int rounds, const char* limit)
{
    SocketClient probe(path);
    probe.Write(request);
    const std::size_t answerBytes = SocketClient::Frame(*probe.Read()).size();
    bare.Serve(request.size(), answerBytes);
    clients.Connect(path, 1);
    clients.Connect(barePath, 1);
    const auto count = static_cast<std::size_t>(rounds);
    const auto [cost, bareCost] = Compare([&] { clients.RoundTrips(path, count, request, answerBytes); },
                                          [&] { clients.RoundTrips(barePath, count, request, answerBytes); });
    Print(name + " / bare echo", cost.cpu / bareCost.cpu, "times", limit);
    Print(name, cost.cpu / rounds * 1e6, "µs CPU");
    Print(name + ", round trip", cost.wall / rounds * 1e6, "µs");
}

/// Returns after all connected clients are served: connections are accepted in order, so a later client is enough.
void AwaitClients(const World& world)
{
    SocketClient mdns(world.mdnsPath);
    mdns.Request(3, 1, SonarixPb::Service());
    mdns.Read();
    SocketClient ssdp(world.ssdpPath);
    ssdp.Request(2, 1, SonarixPb::DiscoveredDeviceList());
    ssdp.Read();
}

void CompareNotifications(std::size_t count, World& world, Clients& clients, BareServer& bare)
{
    constexpr std::size_t kBatch = 50; // per read; fits into a socket buffer
    const auto device =
        std::make_shared<SonarixPb::DeviceInfo>(SonarixService::ProductToDeviceInfo(SampleProducts::Row(1)));
    clients.Connect(world.mdnsPath, count);
    AwaitClients(world);
    SocketClient probe(world.mdnsPath);
    AwaitClients(world);
    world.server->SendSonarixNotification(SonarixPb::ONLINE, device);
    const std::string frame = SocketClient::Frame(*probe.Read());
    clients.Read(world.mdnsPath, frame.size());
    probe.Close();

    clients.Connect(world.barePath, count);
    bare.Serve(frame.size(), frame.size());
    const std::size_t batches = std::max<std::size_t>(4, 2000 / count);
    const auto notify = [&]
    {
        for (std::size_t batch = 0; batch < batches; ++batch)
        {
            for (std::size_t number = 0; number < kBatch; ++number)
            {
                world.server->SendSonarixNotification(SonarixPb::ONLINE, device);
            }
            clients.Read(world.mdnsPath, kBatch * frame.size());
        }
    };
    const auto [cost, bareCost] =
        Compare(notify, [&] { clients.RoundTrips(world.barePath, batches * kBatch, frame, frame.size()); });
    const auto sent = static_cast<double>(batches * kBatch * count);
    const std::string name = "notification to " + std::to_string(count) + (count == 1 ? " client" : " clients");
    Print(name + ", each / bare echo", cost.cpu / bareCost.cpu, "times", count == 1 ? "<= 2" : "");
    Print(name + ", each", cost.cpu / sent * 1e6, "µs CPU");
    clients.Connect(world.mdnsPath, 0);
    clients.Connect(world.barePath, 0);
}

void MeasureMemory(World& world, Clients& clients)
{
    constexpr std::size_t kFew = 50; // their one-time allocations are not counted
    constexpr std::size_t kMany = 550;
    const auto connect = [&](std::size_t count)
    {
        clients.Connect(world.mdnsPath, count);
        clients.Connect(world.ssdpPath, count);
        AwaitClients(world);
        return PrivateDirty(::getpid());
    };
    const long before = connect(kFew);
    const long after = connect(kMany);
    Print("a silent client", static_cast<double>(after - before) / (2 * (kMany - kFew)), "KiB");
    connect(0);
}

void PinToOneCore()
{
    cpu_set_t one;
    CPU_ZERO(&one);
    CPU_SET(::sched_getcpu(), &one);
    if (::sched_setaffinity(0, sizeof one, &one) != 0)
    {
        std::perror("sched_setaffinity");
        std::exit(1);
    }
}

void Run()
{
    PinToOneCore();  // the client process inherits it
    Clients clients; // forks, therefore before any thread starts
    RaiseDescriptorLimit();
    DPrint::SetLevels("1");
    World world;
    MeasureMemory(world, clients);
    BareServer bare(world.barePath);

    {
        RouterService router;
        SonarixPb::ServiceId record;
        record.set_name(std::string(500, 'n'));
        CompareTrips("request and answer of 500 bytes", clients, router.path, SocketClient::RequestFrame(1, 1, record),
                     bare, world.barePath, 5000, "<= 2");
        clients.Connect(router.path, 0);
    }
    const std::string list = SocketClient::RequestFrame(2, 1, SonarixPb::DiscoveredDeviceList());
    for (const int count : {3, 500})
    {
        world.ssdp->list = SampleProducts::List(count);
        CompareTrips("list of " + std::to_string(count) + " devices", clients, world.ssdpPath, list, bare,
                     world.barePath, count == 3 ? 2000 : 50, "");
    }
    clients.Connect(world.ssdpPath, 0);
    for (const std::size_t count : {1, 100, 500})
    {
        CompareNotifications(count, world, clients, bare);
    }
}

} // namespace

int main(int argc, char** argv)
{
    if (argc == 2 && std::string(argv[1]) == "--clients")
    {
        return Clients::Main();
    }
    if (argc != 1)
    {
        std::fprintf(stderr, "usage: bench-ipc\n");
        return 2;
    }
    try
    {
        Run();
        return 0;
    }
    catch (const std::exception& failure)
    {
        std::fprintf(stderr, "bench-ipc: %s\n", failure.what());
        return 1;
    }
}
