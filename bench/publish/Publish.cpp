// Measures the publication of the product table, from the change of one row to the record of the last subscriber:
//
//     build/release/bench/bench-publish build/release/bin/portico-gateway
//
// This process is the service, with the real aggregator and the real gateway client. Discovery and the gateways of the
// other products are fake. The gateway is the real program. Each subscriber is a process with the real client library.
// All traffic is on free loopback ports.
//
// Part one changes one row at a time and measures each step. Part two is a burst: all products of the table become
// ONLINE within two seconds. Times are CPU times unless a column says "wall". The results follow as lines of the form
// NAME<TAB>VALUE<TAB>UNIT<TAB>LIMIT. The limit is empty: this bench checks nothing.

#include "aggregator/DiscoveryServiceAggregator.h"
#include "bench/publish/SampleProducts.h"
#include "bench/publish/StubProducts.h"
#include "bench/publish/Subscriber.h"
#include "bench/support/Processes.h"
#include "gateway/DiscoveryServicePorticoClient.h"
#include "runtime/DPrint.h"
#include "tests/fakes/FakeDiscovery.h"
#include "tests/support/RealTask.h"
#include <ProtoToMarkup.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <unistd.h>

namespace
{

using Clock = std::chrono::steady_clock;

constexpr int kSizes[] = {100, 500, 1000};
constexpr int kSubscribers[] = {1, 20};
constexpr int kBurstSubscribers[] = {1, 5}; ///< more would mainly measure the parsing of the subscribers
constexpr int kBurstRows = 500;
constexpr std::chrono::milliseconds kBurst{2000};
constexpr std::chrono::seconds kPatience{300}; ///< limit for each wait
constexpr int kWarmUp = 3;
constexpr std::size_t kRepeats = 11; ///< of a separately measured part

double Seconds(Clock::duration duration)
{
    return std::chrono::duration<double>(duration).count();
}

/// CPU seconds that threads and processes have used so far. Only differences are meaningful.
struct Cpu
{
    double controller = 0; ///< the service's task
    double io = 0;         ///< the service's gateway client
    double gateway = 0;
    double subscribers = 0; ///< all of them

    Cpu operator-(const Cpu& earlier) const
    {
        return {controller - earlier.controller, io - earlier.io, gateway - earlier.gateway,
                subscribers - earlier.subscribers};
    }
};

/// A service with a full table, its gateway, and subscribers to the table.
class Publication
{
public:
    enum class Table
    {
        DISCOVERED, ///< rows with the fields of a discovery report
        DESCRIBED,  ///< rows that also have the products' own information
    };

    Publication(const char* gatewayProgram, int rows, Table table)
        : m_gateway(gatewayProgram)
        , m_products(m_gateway.Port())
    {
        m_controller->ssdp = m_discovery;
        Portico::ConnectCallback onConnect(
            [lost = m_serviceLost](const bool& isConnected) { *lost += isConnected ? 0 : 1; }, m_task.Get());
        const std::shared_ptr<PorticoClientIF> portico = Portico::PorticoClient::Create(
            "SonarixService", "localhost", m_gateway.Port(), "tarsier", "", &onConnect, std::nullopt, {});
        m_aggregator = std::make_shared<SonarixService::DiscoveryServiceAggregator>(m_task.Get(), m_controller);
        m_service = std::make_shared<SonarixService::DiscoveryServicePorticoClient>(m_task.Get(), m_controller, portico,
                                                                                    m_aggregator);
        m_service->Initialize();
        m_task.Run([this] { m_aggregator->InitializeProtocols(SXCommon::HOST, "192.168.1.1"); });
        for (int number = 0; number < rows; ++number)
        {
            m_discovery->Report(table == Table::DESCRIBED ? SampleProducts::Row(number)
                                                          : SampleProducts::Discovered(number));
        }
        m_task.Drain();
    }
    ~Publication()
    {
        m_subscribers.clear();
        m_task.Run([this] { m_service->Shutdown(); });
        m_task.StopAndJoin();
    }
    Publication(const Publication&) = delete;
    Publication& operator=(const Publication&) = delete;

    /// Starts subscribers until there are `count`, then changes the table a few times. False on a timeout.
    bool Subscribe(int count)
    {
        while (static_cast<int>(m_subscribers.size()) < count)
        {
            const int number = static_cast<int>(m_subscribers.size());
            m_subscribers.push_back(std::make_unique<SubscriberProcess>(m_gateway.Port(), number, m_notices));
        }
        m_stats.resize(m_subscribers.size());
        bool isWell = WaitForAll([](const SubscriberStats& stats) { return stats.connections > 0; });
        for (int change = 0; isWell && change < kWarmUp; ++change)
        {
            isWell = ChangeAndWait();
        }
        *m_serviceLost = 0; // ignores attempts before the gateway listened
        return isWell;
    }

    /// One product notifies its information, which publishes the table. Returns when each subscriber has parsed it.
    bool ChangeAndWait()
    {
        const std::vector<SubscriberStats> before = m_stats;
        Answer(0);
        return WaitForAll([this, &before](const SubscriberStats& stats)
                          { return stats.lists > before[static_cast<std::size_t>(&stats - m_stats.data())].lists; });
    }

    void Answer(int number)
    {
        m_products.Answer(SampleProducts::Described(number));
    }

    /// Handles the notices of the subscribers until `end`.
    void ListenUntil(Clock::time_point end)
    {
        while (const std::optional<Notice> notice = m_notices.Read(end))
        {
            Take(*notice);
        }
    }

    /// False if `isReached` is not true for every subscriber within kPatience.
    bool WaitForAll(const std::function<bool(const SubscriberStats&)>& isReached)
    {
        const Clock::time_point end = Clock::now() + kPatience;
        while (!std::all_of(m_stats.begin(), m_stats.end(), isReached))
        {
            const std::optional<Notice> notice = m_notices.Read(end);
            if (!notice)
            {
                return false;
            }
            Take(*notice);
        }
        return true;
    }

    Cpu Now() const
    {
        Cpu cpu;
        m_task.Run([&cpu] { cpu.controller = ThreadCpu(); });
        cpu.io = ProcessCpu(::getpid()) - cpu.controller - ThreadCpu(); // no other thread runs here
        cpu.gateway = ProcessCpu(m_gateway.Pid());
        for (const auto& subscriber : m_subscribers)
        {
            cpu.subscribers += ProcessCpu(subscriber->Pid());
        }
        return cpu;
    }

    /// CPU seconds of `part` on the service's task, the median of several.
    double MeasurePart(const std::function<void()>& part) const
    {
        std::array<double, kRepeats> seconds{};
        m_task.Run(
            [&]
            {
                for (double& each : seconds)
                {
                    const double start = ThreadCpu();
                    part();
                    each = ThreadCpu() - start;
                }
            });
        std::sort(seconds.begin(), seconds.end());
        return seconds[kRepeats / 2];
    }

    Sonarix::ProductList List() const
    {
        Sonarix::ProductList list;
        m_task.Run([&] { m_aggregator->GetProductList(list); });
        return list;
    }
    const std::vector<SubscriberStats>& Subscribers() const
    {
        return m_stats;
    }
    pid_t Gateway() const
    {
        return m_gateway.Pid();
    }
    /// How often the service lost its connection to the gateway.
    int ServiceLost() const
    {
        int lost = 0;
        m_task.Run([&] { lost = *m_serviceLost; });
        return lost;
    }

private:
    void Take(const Notice& notice)
    {
        m_stats[static_cast<std::size_t>(notice.subscriber)].Take(notice);
    }

    const GatewayProcess m_gateway;
    StubProducts m_products;
    const RealTask m_task{"Controller"};
    const std::shared_ptr<int> m_serviceLost = std::make_shared<int>(0); ///< used only on the task
    const std::shared_ptr<FakeSsdpDiscoveryProtocol> m_discovery = std::make_shared<FakeSsdpDiscoveryProtocol>();
    const std::shared_ptr<FakeController> m_controller = std::make_shared<FakeController>();
    std::shared_ptr<SonarixService::DiscoveryServiceAggregatorIF> m_aggregator;
    std::shared_ptr<SonarixService::DiscoveryServicePorticoClientIF> m_service;
    const NoticePipe m_notices;
    std::vector<std::unique_ptr<SubscriberProcess>> m_subscribers;
    std::vector<SubscriberStats> m_stats;
};

/// Cost of one change, in seconds.
struct Change
{
    double bytes = 0;
    double toJson = 0;
    double rest = 0; ///< remaining work of the service's task: merge, list, timers, log
    double send = 0; ///< frame and socket, on the client's thread
    double gateway = 0;
    double subscriber = 0; ///< per subscriber
    double wall = 0;       ///< until the last subscriber has parsed the list
};

bool MeasureChange(Publication& publication, int subscribers, Change& change)
{
    const int changes = subscribers > 1 ? 6 : 15;
    const Cpu cpuBefore = publication.Now();
    const Clock::time_point start = Clock::now();
    for (int index = 0; index < changes; ++index)
    {
        if (!publication.ChangeAndWait())
        {
            return false;
        }
    }
    change.wall = Seconds(Clock::now() - start) / changes;
    const Cpu cpu = publication.Now() - cpuBefore;

    const Sonarix::ProductList list = publication.List();
    change.toJson = publication.MeasurePart([&] { ProtoToMarkup::ToJson(list, true, false, false); });
    change.bytes = static_cast<double>(publication.Subscribers().front().last.bytes);
    change.rest = cpu.controller / changes - change.toJson;
    change.send = cpu.io / changes;
    change.gateway = cpu.gateway / changes;
    change.subscriber = cpu.subscribers / changes / subscribers;
    return true;
}

void PrintLine(const std::string& name, double value, const char* unit)
{
    std::printf("publish %s\t%.1f\t%s\t\n", name.c_str(), value, unit);
}

bool RunChanges(const char* gatewayProgram, std::vector<std::function<void()>>& lines)
{
    std::printf("One change, CPU in ms:\n%5s %5s %9s %7s %7s %7s %8s %8s %10s %9s\n", "rows", "subs", "bytes", "ToJson",
                "rest", "send", "gateway", "fan-out", "subscriber", "wall");
    for (const int rows : kSizes)
    {
        Publication publication(gatewayProgram, rows, Publication::Table::DESCRIBED);
        double first = 0; // gateway CPU with one subscriber
        for (const int subscribers : kSubscribers)
        {
            Change change;
            if (!publication.Subscribe(subscribers) || !MeasureChange(publication, subscribers, change))
            {
                return false;
            }
            first = subscribers == 1 ? change.gateway : first;
            const double fanOut = subscribers == 1 ? 0 : (change.gateway - first) / (subscribers - 1);
            std::printf("%5d %5d %9.0f %7.2f %7.2f %7.2f %8.2f %8.2f %10.2f %9.1f\n", rows, subscribers, change.bytes,
                        change.toJson * 1e3, change.rest * 1e3, change.send * 1e3, change.gateway * 1e3, fanOut * 1e3,
                        change.subscriber * 1e3, change.wall * 1e3);
            std::fflush(stdout);
            lines.push_back(
                [=]
                {
                    const std::string name =
                        std::to_string(rows) + " rows, " + std::to_string(subscribers) + " subscriber(s), one change: ";
                    const double service = change.toJson + change.rest + change.send;
                    PrintLine(name + "bytes", change.bytes, "bytes");
                    PrintLine(name + "service CPU", service * 1e3, "ms");
                    PrintLine(name + "gateway CPU", change.gateway * 1e3, "ms");
                    PrintLine(name + "subscriber CPU", change.subscriber * 1e3, "ms");
                    PrintLine(name + "wall", change.wall * 1e3, "ms");
                });
        }
    }
    return true;
}

bool RunBurst(const char* gatewayProgram, int subscribers, std::vector<std::function<void()>>& lines)
{
    Publication publication(gatewayProgram, kBurstRows, Publication::Table::DISCOVERED);
    if (!publication.Subscribe(subscribers))
    {
        return false;
    }
    const std::vector<SubscriberStats> before = publication.Subscribers();
    ForgetPeakMemory(::getpid());
    ForgetPeakMemory(publication.Gateway());
    const double memory = PeakMemory(::getpid());
    const double gatewayMemory = PeakMemory(publication.Gateway());
    const Cpu cpuBefore = publication.Now();
    const Clock::time_point start = Clock::now();
    for (int number = 1; number < kBurstRows; ++number) // the first is ONLINE already
    {
        publication.ListenUntil(start + kBurst * number / kBurstRows);
        publication.Answer(number);
    }
    const bool isWhole =
        publication.WaitForAll([](const SubscriberStats& stats) { return stats.last.online == kBurstRows; });
    const double wall = Seconds(Clock::now() - start);
    const Cpu cpu = publication.Now() - cpuBefore;

    int fewest = kBurstRows;
    int lost = 0;
    double bytes = 0;
    for (std::size_t index = 0; index < before.size(); ++index)
    {
        const SubscriberStats& stats = publication.Subscribers()[index];
        fewest = std::min(fewest, stats.lists - before[index].lists);
        lost += stats.losses - before[index].losses;
        bytes += stats.bytes - before[index].bytes;
    }
    const int serviceLost = publication.ServiceLost();
    const double peak = PeakMemory(::getpid()) - memory;
    const double gatewayPeak = PeakMemory(publication.Gateway()) - gatewayMemory;
    std::printf("%4d %10.2f %6.2f %8.2f %11.2f %8.1f %7.0f %7d %9d %12d %8.0f %8.0f%s\n", subscribers, cpu.controller,
                cpu.io, cpu.gateway, cpu.subscribers, wall, bytes / 1e6, fewest, lost, serviceLost, peak, gatewayPeak,
                isWhole ? "" : "  (the last list did not arrive)");
    std::fflush(stdout);
    lines.push_back(
        [=]
        {
            const std::string name =
                std::to_string(kBurstRows) + " products in 2 s, " + std::to_string(subscribers) + " subscriber(s): ";
            PrintLine(name + "service CPU", cpu.controller + cpu.io, "s");
            PrintLine(name + "gateway CPU", cpu.gateway, "s");
            PrintLine(name + "until all know all", wall, "s");
            PrintLine(name + "fewest lists heard", fewest, "lists");
            PrintLine(name + "connections lost", lost + serviceLost, "connections");
            PrintLine(name + "service memory on top", peak, "MiB");
            PrintLine(name + "gateway memory on top", gatewayPeak, "MiB");
        });
    return isWhole;
}

bool RunBursts(const char* gatewayProgram, std::vector<std::function<void()>>& lines)
{
    std::printf("\n%d products become ONLINE within 2 s, CPU in s, wall in s, memory on top in MiB:\n"
                "%4s %10s %6s %8s %11s %8s %7s %7s %9s %12s %8s %8s\n",
                kBurstRows, "subs", "controller", "send", "gateway", "subscribers", "wall", "MB", "fewest", "subs lost",
                "service lost", "service", "gateway");
    bool isWhole = true;
    for (const int subscribers : kBurstSubscribers)
    {
        isWhole = RunBurst(gatewayProgram, subscribers, lines) && isWhole;
    }
    return isWhole;
}

} // namespace

int main(int argc, char** argv)
{
    if (argc == 4 && std::strcmp(argv[1], SubscriberProcess::kOption) == 0)
    {
        SubscriberProcess::Run(std::atoi(argv[2]), std::atoi(argv[3]));
        return 0;
    }
    if (argc != 2)
    {
        std::fprintf(stderr, "usage: bench-publish GATEWAY-PROGRAM\n");
        return 2;
    }
    ::setenv("SONARIX_LOG", "1", 1); // of the children
    DPrint::SetLevels("3");          // the product's setting; lines are formatted and dropped
    DPrint::SetSink([](const std::string&, DPrint::Level, const std::string&) {});
    std::vector<std::function<void()>> lines;
    const bool isWhole = RunChanges(argv[1], lines) && RunBursts(argv[1], lines);
    std::printf("\n");
    for (const auto& line : lines)
    {
        line();
    }
    return isWhole ? 0 : 1;
}
