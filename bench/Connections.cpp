// Measures the memory of idle gateway connections at both ends, with thousands of connections:
//
//     build/release/bench/bench-connections build/release/bin/portico-gateway 3900
//
// Starts the gateway on loopback, connects the clients step by step from this process, each with a subscription, and
// prints the growth of both processes. Output, read by bench/run: NAME<TAB>VALUE<TAB>UNIT<TAB>LIMIT per figure.

#include "bench/support/Processes.h"
#include "runtime/AsyncCallback.h"
#include "runtime/ConditionSemaphore.h"
#include "runtime/DPrint.h"
#include "runtime/Task.h"
#include <PorticoClient.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <unistd.h>

namespace
{

constexpr unsigned int kConnectLimitMs = 60'000;

/// Adds clients until there are `wanted`, and waits until each of them has its connection. Returns false on a timeout.
bool ConnectUpTo(std::size_t wanted, int port, NotifyTargetTaskIF* task,
                 std::vector<std::shared_ptr<PorticoClientIF>>& clients)
{
    const auto connected = std::make_shared<ConditionSemaphore>(0);
    Portico::ConnectCallback onConnect(
        [connected](const bool& isConnected)
        {
            if (isConnected)
            {
                connected->Signal();
            }
        },
        task);
    const std::size_t added = wanted - clients.size();
    while (clients.size() < wanted)
    {
        clients.push_back(Portico::PorticoClient::Create("bench-" + std::to_string(clients.size()), "localhost", port,
                                                         "tarsier", "", &onConnect, std::nullopt, {}));
        clients.back()->RegisterNotificationText("/bench", nullptr, Portico::EndpointScope::PRIVATE, 1.0, 0);
    }
    for (std::size_t arrived = 0; arrived < added; ++arrived)
    {
        if (!connected->Wait(kConnectLimitMs))
        {
            std::fprintf(stderr, "only %zu of %zu connected\n", wanted - added + arrived, wanted);
            return false;
        }
    }
    return true;
}

} // namespace

int main(int argc, char** argv)
{
    if (argc < 2 || argc > 3)
    {
        std::fprintf(stderr, "usage: bench-connections GATEWAY-PROGRAM [CLIENTS]\n");
        return 2;
    }
    const std::size_t most = argc == 3 ? std::strtoul(argv[2], nullptr, 10) : 3900;
    RaiseDescriptorLimit();
    DPrint::SetLevels("1");
    ::setenv("SONARIX_LOG", "1", 1); // the gateway's, a line for each connection otherwise
    const GatewayProcess gateway(argv[1]);
    NotifyTargetTaskIF* const task = IL::CreateTask("Bench", "");

    std::vector<std::shared_ptr<PorticoClientIF>> clients;
    bool isWhole = ConnectUpTo(1, gateway.Port(), task, clients); // excludes the cost of the first connection
    const long ownBase = PrivateDirty(::getpid());
    const long gatewayBase = PrivateDirty(gateway.Pid());
    for (std::size_t count = 100; isWhole && clients.size() < most; count *= 3)
    {
        isWhole = ConnectUpTo(std::min(count, most), gateway.Port(), task, clients);
        const auto others = static_cast<double>(clients.size() - 1);
        std::printf("a connection's client, of %zu\t%.1f\tKiB\t\n", clients.size(),
                    static_cast<double>(PrivateDirty(::getpid()) - ownBase) / others);
        std::printf("a connection's gateway, of %zu\t%.1f\tKiB\t\n", clients.size(),
                    static_cast<double>(PrivateDirty(gateway.Pid()) - gatewayBase) / others);
    }
    clients.clear();
    IL::StopTask(task);
    IL::JoinTask(task);
    return isWhole ? 0 : 1;
}
