// What a gateway connection at rest costs on either end, and that the gateway holds thousands of them:
//
//     build/release/bench/bench-connections build/release/bin/portico-gateway 3900
//
// Starts that gateway on loopback, connects the clients to it step by step from this one process, each with a
// subscription, and prints what both processes have grown by: a line of name, value, unit and demand for each figure,
// separated by tabs, as bench/run reads them. Figures are counts of one run; nothing is timed.

#include "AsyncCallback.h"
#include "ConditionSemaphore.h"
#include "DPrint.h"
#include "PorticoClient.h"
#include "Task.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <csignal>
#include <netinet/in.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

namespace
{

constexpr unsigned int kConnectLimitMs = 60'000;

/// KiB that this process alone has written to: what a connection really takes from the product.
long PrivateDirty(pid_t process)
{
    std::ifstream rollup("/proc/" + std::to_string(process) + "/smaps_rollup");
    long total = 0;
    for (std::string line; std::getline(rollup, line);)
    {
        long kib = 0;
        if (std::sscanf(line.c_str(), "Private_Dirty: %ld kB", &kib) == 1)
        {
            total += kib;
        }
    }
    return total;
}

/// A port of loopback that was free a moment ago.
int FreePort()
{
    const int probe = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof address;
    ::bind(probe, reinterpret_cast<const sockaddr*>(&address), length);
    ::getsockname(probe, reinterpret_cast<sockaddr*>(&address), &length);
    ::close(probe);
    return ntohs(address.sin_port);
}

/// The gateway under measurement; ended with the object.
class GatewayProcess
{
public:
    GatewayProcess(const char* program, int port)
    {
        const std::string portText = std::to_string(port);
        m_pid = ::fork();
        if (m_pid == 0)
        {
            ::setenv("SONARIX_LOG", "1", 1);
            ::execl(program, program, "--port", portText.c_str(), "--lan-port", "0", static_cast<char*>(nullptr));
            std::fprintf(stderr, "cannot run %s: %s\n", program, std::strerror(errno));
            ::_exit(127);
        }
    }
    ~GatewayProcess()
    {
        ::kill(m_pid, SIGTERM);
        ::waitpid(m_pid, nullptr, 0);
    }
    GatewayProcess(const GatewayProcess&) = delete;
    GatewayProcess& operator=(const GatewayProcess&) = delete;

    pid_t Pid() const
    {
        return m_pid;
    }

private:
    pid_t m_pid = -1;
};

void RaiseDescriptorLimit()
{
    rlimit limit{};
    ::getrlimit(RLIMIT_NOFILE, &limit);
    limit.rlim_cur = limit.rlim_max;
    ::setrlimit(RLIMIT_NOFILE, &limit);
}

/// Adds clients up to `wanted` and waits until each of them has its connection. False after the limit.
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
    const int port = FreePort();
    const GatewayProcess gateway(argv[1], port);
    NotifyTargetTaskIF* const task = IL::CreateTask("Bench", "");

    std::vector<std::shared_ptr<PorticoClientIF>> clients;
    bool isWhole = ConnectUpTo(1, port, task, clients); // what the first one brings along is nobody's share
    const long ownBase = PrivateDirty(::getpid());
    const long gatewayBase = PrivateDirty(gateway.Pid());
    for (std::size_t count = 100; isWhole && clients.size() < most; count *= 3)
    {
        isWhole = ConnectUpTo(std::min(count, most), port, task, clients);
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
